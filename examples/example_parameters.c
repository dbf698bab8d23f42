/* The parameter registry: two classes of camera parameters, a class callback
 * that validates and applies a setting under the class's mutex, a parameter
 * callback that drives the (pretend) sensor, flag words, and runs of one
 * class and of every class. */
#include "example_support.h"

#define CLASS_ENABLED 0x1u /* the application's meaning of a class flag bit */

/* What the application hands to a class run, through the content pointer. */
typedef struct {
    const char* name;  /* parameter to set, or NULL: every parameter to its default */
    const char* value; /* the new value as text, as the web interface sends it */
} set_request_t;

static UTIL_S32 apply_to_sensor(util_parameter_base_one_t* para, void** content)
{
    (void)content;
    printf("    sensor: %s = %d\n", para->name, (int)para->cur);
    return 0;
}

/* The class callback: the registry calls it, never the parameters'
 * callbacks, and never locks the class's mutex itself. */
static UTIL_S32 apply_class(util_parameter_class_t* cls, void** content)
{
    const set_request_t* req = content != NULL ? *content : NULL;
    UTIL_S32 result = 0;
    int j;

    if (req == NULL || (cls->callback_flag & CLASS_ENABLED) == 0) return 0;
    pthread_mutex_lock(&cls->used_mutex);
    for (j = 0; j < cls->paraListMax; ++j) {
        util_parameter_base_one_t* para = &cls->paraList[j];
        char rule[32], value[16];

        if (req->name == NULL) {
            para->cur = para->def;
        } else if (strcmp(req->name, para->name) == 0) {
            /* Check the text against the parameter's range before using it. */
            snprintf(rule, sizeof rule, "1#%d#%d", (int)para->min, (int)para->max);
            snprintf(value, sizeof value, "%s", req->value);
            result = util_ops_pfun->common_base->judgeSubStrWithinRange(value, rule);
            if (result != UTIL_STR_COMPARE_RETURN_ERR_NONE) break;
            para->cur = atoi(value);
        } else {
            continue;
        }
        if (para->setFunc_callback != NULL) para->setFunc_callback(para, content);
    }
    pthread_mutex_unlock(&cls->used_mutex);
    return result;
}

static int run(void)
{
    util_ops_parameter_base_fun_t* reg = util_ops_pfun->parameter_base;
    util_list_parameter_class_t list = {NULL, 0}; /* zeroed before the first init_list */
    set_request_t request;
    void* content = &request;
    UTIL_U32 flag = CLASS_ENABLED;
    int c;

    /* The application's description; the registry copies it (the texts
     * too), so these arrays could be temporary. path, name and description
     * are only borrowed and must outlive the list. */
    {
        util_parameter_base_one_t video[] = {
            {50, 50, 0, 100, NULL, "Brightness", "image brightness", "brightness", NULL, 0},
            {50, 50, 0, 100, NULL, "Contrast", "image contrast", "contrast", NULL, 0},
        };
        util_parameter_base_one_t audio[] = {
            {8, 8, 0, 15, NULL, NULL, "line-out volume", "volume", NULL, 0},
        };
        util_parameter_class_t classes[2];

        memset(classes, 0, sizeof classes);
        classes[0].path = "/video";
        classes[0].paraList = video;
        classes[0].paraListMax = 2;
        classes[1].path = "/audio";
        classes[1].paraList = audio;
        classes[1].paraListMax = 1;
        EX_CHECK(reg->init_list(&list, classes, 2) == 0);
    }
    EX_CHECK(list.classMax == 2 && strcmp(list.pclass[0].paraList[0].text, "Brightness") == 0);

    /* -1 stands for every class (and, for parameters, every parameter). */
    EX_CHECK(reg->register_class_func(&list, -1, apply_class) == 0);
    EX_CHECK(reg->register_base_func(&list, 0, -1, apply_to_sensor) == 0);
    EX_CHECK(reg->register_base_func(&list, 1, 0, apply_to_sensor) == 0);
    EX_CHECK(reg->register_class_flag(&list, -1, &flag, UTIL_TRUE) == 0);
    flag = 0;
    EX_CHECK(reg->register_class_flag(&list, 1, &flag, UTIL_FALSE) == 0 && flag == CLASS_ENABLED);

    request.name = "brightness";
    request.value = "70";
    printf("set brightness 70:\n");
    EX_CHECK(reg->run_class(&list, 0, &content) == 0);
    EX_CHECK(list.pclass[0].paraList[0].cur == 70);

    request.value = "170";
    printf("set brightness 170: ");
    fflush(stdout);
    EX_CHECK(reg->run_class(&list, 0, &content) == UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_OUTRANGE);
    printf("\n  refused, brightness stays %d\n", (int)list.pclass[0].paraList[0].cur);
    EX_CHECK(list.pclass[0].paraList[0].cur == 70);

    request.name = NULL;
    printf("defaults for every class:\n");
    EX_CHECK(reg->run_class(&list, -1, &content) == 0);
    for (c = 0; c < list.classMax; ++c) {
        printf("  %s: %s = %d\n", list.pclass[c].path, list.pclass[c].paraList[0].name, (int)list.pclass[c].paraList[0].cur);
    }
    EX_CHECK(list.pclass[0].paraList[0].cur == 50);

    EX_CHECK(reg->run_class(&list, 2, &content) == -1); /* out of range: traced, nothing run */
    EX_CHECK(reg->exit_list(&list) == 0 && list.pclass == NULL && list.classMax == 0);
    return 0;
}

int main(void)
{
    static const ex_step_t steps[] = {run};
    return ex_main("parameters", steps, sizeof steps / sizeof steps[0], 1);
}
