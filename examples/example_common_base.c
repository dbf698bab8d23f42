/* Common base helpers: numbers, texts, number texts, UTF-8 checks, a string
 * list, and the range validator that checks a parameter value given as text
 * against a rule before the application applies it. */
#include "example_support.h"

/* A setting as the web interface or the control protocol hands it over,
 * with the rule that admits its values. */
typedef struct {
    const char* name;
    const char* rule;
    const char* value;
    int expected;
} setting_t;

static int numbers(void)
{
    util_ops_common_base_fun_t* base = util_ops_pfun->common_base;
    UTIL_S32 sizes[] = {1080, -20, 720, 0, 2160};
    UTIL_S32 y = 0, u = 0, v = 0;
    UTIL_S32 g = base->calc_gcd(1920, 1080);
    int i;

    printf("aspect ratio of 1920x1080: %d:%d\n", (int)(1920 / g), (int)(1080 / g));
    EX_CHECK(g == 120);
    EX_CHECK(base->limitValueRange(100, 130, 0) == 100); /* limits in either order */
    EX_CHECK(base->rgb2yuv_By_CCIR_601(255, 0, 0, &y, &u, &v) == 0);
    printf("RGB(255,0,0) -> YUV(%d,%d,%d)\n", (int)y, (int)u, (int)v);
    EX_CHECK(y == 76 && u == 84 && v == 255);
    printf("sqrt(2) ~ %.6f\n", (double)base->err_sqrt(2.0f));

    base->bubbleSort2(sizes, 5);
    printf("sorted:");
    for (i = 0; i < 5; ++i) printf(" %d", (int)sizes[i]);
    printf("\n");
    EX_CHECK(sizes[0] == -20 && sizes[4] == 2160);
    return 0;
}

static int texts(void)
{
    util_ops_common_base_fun_t* base = util_ops_pfun->common_base;
    char line[] = "  exposure=auto \r\n";
    char blanks[] = "   ";
    char num[12], hex[12], bin[33];
    UTIL_S32 value = 0;
    /* A received camera command against a reference whose 0xFF bytes match anything. */
    UTIL_U8 received[] = {0x81, 0x01, 0x04, 0x47, 0x01, 0xFF};
    UTIL_U8 zoom_direct[] = {0x81, 0x01, 0x04, 0x47, 0xFF, 0xFF};
    /* "Zoom" in Chinese: two 3-byte characters, and a cut-off copy. */
    char utf8[] = "zoom \xE5\x8F\x98\xE7\x84\xA6";
    char cut[] = "\xE5\x8F";
    UTIL_S32 cnt[3] = {0, 0, 0};

    /* Trimming works in place; a text of white space only yields NULL. */
    EX_CHECK(base->strTrim(line) == line && strcmp(line, "exposure=auto") == 0);
    EX_CHECK(base->strTrim(blanks) == NULL && blanks[0] == '\0');
    printf("trimmed: \"%s\"\n", line);

    EX_CHECK(base->command_visca_memcmp(received, sizeof received, zoom_direct, sizeof zoom_direct) == 0);

    EX_CHECK(base->htoi("0x1F4", &value, 5) == 0 && value == 500);
    EX_CHECK(base->htoi("12g4", &value, 4) == -1); /* not a hexadecimal digit */
    EX_CHECK(base->itoa(-305, num) == 0);
    EX_CHECK(base->itoh(255, hex) == 2);
    EX_CHECK(base->itob2(5, bin) == 3);
    printf("itoa(-305)=%s itoh(255)=%s itob2(5)=%s\n", num, hex, bin);

    EX_CHECK(base->isUtf8Format(utf8) == 1 && base->isUtf8Format(cut) == 0);
    EX_CHECK(base->getUtf8Length(utf8, cnt) == 7);
    printf("\"%s\": %d characters, %d one-byte, %d three-byte\n", utf8, (int)cnt[0], (int)cnt[1], (int)cnt[2]);
    return 0;
}

static int string_list(void)
{
    util_ops_common_base_fun_t* base = util_ops_pfun->common_base;
    util_string_list_t list = {NULL, 0};
    int i;

    /* Three zeroed 32-byte buffers; length holds each buffer's capacity. */
    EX_CHECK(base->strList_malloc(&list, 3, 32) == 0);
    for (i = 0; i < list.size; ++i) {
        snprintf(list.strList[i].string, (size_t)list.strList[i].length, "stream%d", i);
    }
    printf("string list: %s %s %s\n", list.strList[0].string, list.strList[1].string, list.strList[2].string);
    /* Takes the record by value: reset the caller's copy afterwards. */
    EX_CHECK(base->strList_free(list) == 0);
    list.strList = NULL;
    list.size = 0;
    return 0;
}

static int validation(void)
{
    static const setting_t settings[] = {
        {"wdr", "0#on#off#", "on", UTIL_STR_COMPARE_RETURN_ERR_NONE},
        {"wdr", "0#on#off#", "auto", UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_OUTRANGE},
        {"brightness", "1#0#100", "55", UTIL_STR_COMPARE_RETURN_ERR_NONE},
        {"brightness", "1#0#100", "140", UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_OUTRANGE},
        {"brightness", "1#0#100", "5x", UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_FORMAT},
        {"exposure_comp", "1#-20#*", "-7", UTIL_STR_COMPARE_RETURN_ERR_NONE},
        {"osd_text", "2", "anything at all", UTIL_STR_COMPARE_RETURN_ERR_NONE},
        {"hostname", "3#^[a-z][a-z0-9-]*$##^.{1,15}$#", "cam-lobby", UTIL_STR_COMPARE_RETURN_ERR_NONE},
        {"hostname", "3#^[a-z][a-z0-9-]*$##^.{1,15}$#", "Lobby_Cam", UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_FORMAT},
    };
    char value[64];
    size_t i;

    /* Refusals are explained on stderr ("DBG_ERR:..."); the result code
     * tells the application what to answer. */
    for (i = 0; i < sizeof settings / sizeof settings[0]; ++i) {
        UTIL_S32 r;
        snprintf(value, sizeof value, "%s", settings[i].value); /* the validator takes a non-const text */
        r = util_ops_pfun->common_base->judgeSubStrWithinRange(value, settings[i].rule);
        if (r == UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_OUTRANGE) fputc('\n', stderr); /* that report has no line end */
        printf("%-13s %-18s rule %-32s -> %d\n", settings[i].name, settings[i].value, settings[i].rule, (int)r);
        EX_CHECK(r == settings[i].expected);
    }
    return 0;
}

int main(void)
{
    static const ex_step_t steps[] = {numbers, texts, string_list, validation};
    return ex_main("common_base", steps, sizeof steps / sizeof steps[0], 0);
}
