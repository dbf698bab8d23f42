// Parameter registry: the application's classes copied into a list the
// registry owns, with their callbacks, flag words and per-class mutexes.
#include "util_parameter_base_function.h"

#include <pthread.h>
#include <sys/stat.h>

#include <cstring>
#include <type_traits>

#include "core/util_alloc.h"
#include "core/util_entry_list.h"
#include "core/util_msg.h"
#include "core/util_tables.h"
#include "core/util_reentry.h"

namespace {

// While this file exists, building a list traces every parameter and class.
constexpr const char* kDetailMarker = "/dev/util_parameter_base";

bool detail_marker_present() noexcept {
    struct stat st;
    return stat(kDetailMarker, &st) == 0;
}

// A class callback may register callbacks and flags and run classes, of its
// own list too, but may not release or rebuild the list that is running it:
// run_class still holds the class array. True when the operation at `where`
// must refuse (with -1) for that reason; the trace names that operation.
bool refused_while_running(quillane::Where where, const util_list_parameter_class_t* pclassList) noexcept {
    if (!quillane::reentry::covered(pclassList)) return false;
    UTIL_TRACE_AT(where, "error: pclassList is in use by a class callback!\n");
    return true;
}

// A class that claims parameters but has no array to copy them from cannot
// be copied; the whole list is refused before anything is touched.
bool has_missing_parameters(const util_parameter_class_t* ppc, UTIL_S32 pcMax) noexcept {
    for (UTIL_S32 i = 0; i < pcMax; ++i) {
        if (ppc[i].paraListMax > 0 && ppc[i].paraList == nullptr) return true;
    }
    return false;
}

// Frees the heap a class owns. Its mutex is left to the caller, which alone
// knows whether it was ever initialised.
void free_class_contents(util_parameter_class_t& cls) noexcept {
    if (cls.paraList != nullptr) {
        for (UTIL_S32 j = 0; j < cls.paraListMax; ++j) {
            quillane::mem_free(cls.paraList[j].text);
            cls.paraList[j].text = nullptr;
        }
    }
    cls.paraListMax = 0;
    quillane::mem_free(cls.paraList);
    cls.paraList = nullptr;
}

// Undoes a build that ran out of memory: every class up to and including
// `failed` holds heap (the class array is zeroed, so untouched parameter
// slots are null), and only those before it have a live mutex.
void release_failed_build(util_list_parameter_class_t* pclassList, UTIL_S32 failed) noexcept {
    for (UTIL_S32 i = 0; i <= failed; ++i) {
        util_parameter_class_t& cls = pclassList->pclass[i];
        free_class_contents(cls);
        if (i < failed) pthread_mutex_destroy(&cls.used_mutex);
    }
    quillane::mem_free(pclassList->pclass);
    pclassList->pclass = nullptr;
    pclassList->classMax = 0;
}

// Deep copy of one parameter; false when its text could not be copied.
bool copy_parameter(util_parameter_base_one_t& dst, const util_parameter_base_one_t& src) noexcept {
    dst.cur = src.cur;
    dst.def = src.def;
    dst.min = src.min;
    dst.max = src.max;
    dst.getVal = src.getVal;
    dst.text = nullptr;
    if (src.text != nullptr) {
        const std::size_t size = std::strlen(src.text) + 1;
        dst.text = static_cast<UTIL_CHAR*>(quillane::mem_malloc(size));
        if (dst.text == nullptr) return false;
        std::memcpy(dst.text, src.text, size);
    }
    dst.description = src.description;
    dst.name = src.name;
    dst.setFunc_callback = src.setFunc_callback;
    dst.callback_flag = 0;
    return true;
}

UTIL_S32 Func_parameter_base_set_base_function(util_parameter_base_one_t* pstParameterBase,
                                               util_parameter_base_fun_t fun) noexcept {
    pstParameterBase->setFunc_callback = fun;
    return 0;
}

UTIL_S32 Func_parameter_base_set_class_function(util_parameter_class_t* pstParameterClass,
                                                util_parameter_class_fun_t fun) noexcept {
    pstParameterClass->setFunc_callback = fun;
    return 0;
}

UTIL_S32 Func_parameter_base_exit_list_function(util_list_parameter_class_t* pclassList) noexcept {
    if (pclassList == nullptr) {
        UTIL_TRACE("error: pclassList is NULL!\n");
        return -1;
    }
    if (refused_while_running(UTIL_HERE, pclassList)) return -1;
    return quillane::entry_list::release(UTIL_HERE, pclassList->pclass, pclassList->classMax,
                                         [](util_parameter_class_t* classes, UTIL_S32 n) {
                                             for (UTIL_S32 i = 0; i < n; ++i) {
                                                 free_class_contents(classes[i]);
                                                 // Every class of a built list got its mutex, even
                                                 // one without parameters.
                                                 pthread_mutex_destroy(&classes[i].used_mutex);
                                             }
                                         });
}

// Copies one application class into its slot of a zeroed class array, with
// the traces of the build at `where`. False when memory ran out: the slot may
// then hold heap, but its mutex was never initialised.
bool copy_class(quillane::Where where, util_parameter_class_t& cls, const util_parameter_class_t& src, UTIL_S32 i,
                bool detail) noexcept {
    cls.path = src.path;
    const UTIL_S32 count = src.paraListMax;
    // A negative count can only be a corrupt record: treat it as memory we
    // cannot have. A class without parameters still gets its (empty) array,
    // so that every class of a built list has one and the parameter
    // operations accept it.
    if (count >= 0) {
        cls.paraList = static_cast<util_parameter_base_one_t*>(
            quillane::mem_calloc(static_cast<std::size_t>(count), sizeof(util_parameter_base_one_t)));
    }
    if (cls.paraList == nullptr) return false;
    cls.paraListMax = count;
    UTIL_TRACE_AT(where, "malloc succeed, strlist num;%d\n", count);
    for (UTIL_S32 j = 0; j < count; ++j) {
        util_parameter_base_one_t& para = cls.paraList[j];
        if (!copy_parameter(para, src.paraList[j])) return false;
        if (detail) {
            UTIL_TRACE_AT(where, "kiv: (%d,%d) name=%s, cur=%d, def=%d, min=%d, max=%d\n", i, j, para.name, para.cur,
                          para.def, para.min, para.max);
        }
    }
    cls.setFunc_callback = src.setFunc_callback;
    cls.callback_flag = 0;
    pthread_mutex_init(&cls.used_mutex, nullptr);
    cls.bit_param = 0;
    cls.ops_flag = UTIL_PARAMETER_OPS_FLAG_SET;
    if (detail) UTIL_TRACE_AT(where, "kiv: i=%d, path=%s, max=%d\n", i, cls.path, cls.paraListMax);
    return true;
}

UTIL_S32 Func_parameter_base_init_list_function(util_list_parameter_class_t* pclassList, util_parameter_class_t* ppc,
                                                UTIL_S32 pcMax) noexcept {
    if (pclassList == nullptr || ppc == nullptr || pcMax < 1 || has_missing_parameters(ppc, pcMax)) {
        UTIL_TRACE("error: pclassList or ppc is NULL, max:%d!!!\n", pcMax);
        return -1;
    }
    if (refused_while_running(UTIL_HERE, pclassList)) return -1;
    if (pclassList->pclass != nullptr) {
        Func_parameter_base_exit_list_function(pclassList);
    }
    // Zeroed, so that a failure half-way can free every slot without knowing
    // how far the copy got.
    util_parameter_class_t* classes =
        quillane::entry_list::allocate(UTIL_HERE, pclassList->pclass, pclassList->classMax, pcMax, "pc");
    if (classes == nullptr) {
        pclassList->classMax = 0;
        return -1;
    }
    // The marker is looked at once a build: it switches the detail traces for
    // the whole list, not for some of its classes.
    const bool detail = detail_marker_present();
    for (UTIL_S32 i = 0; i < pcMax; ++i) {
        if (!copy_class(UTIL_HERE, classes[i], ppc[i], i, detail)) {
            quillane::entry_list::report_no_memory(UTIL_HERE);
            release_failed_build(pclassList, i);
            return -1;
        }
    }
    UTIL_TRACE("size;%d, %d\n", static_cast<int>(sizeof(util_parameter_class_t)),
               static_cast<int>(sizeof(util_parameter_class_t)));
    return 0;
}

// ---- argument checks shared by run_class and the register operations ----

enum class Refusal { none, list_null, class_range, pclass_null, base_range, paralist_null };

struct Check {
    Refusal why = Refusal::none;
    UTIL_S32 cls = 0;    // the class at fault (for -1, the first one that fails)
    UTIL_S32 limit = 0;  // the open upper end the index was checked against
};

// Range of classes that an index designates: one, or all of them for -1.
struct Span {
    UTIL_S32 first;
    UTIL_S32 end;
};

Span classes_of(const util_list_parameter_class_t* list, UTIL_S32 classIndex) noexcept {
    return classIndex == -1 ? Span{0, list->classMax} : Span{classIndex, classIndex + 1};
}

Span params_of(const util_parameter_class_t& cls, UTIL_S32 baseIndex) noexcept {
    return baseIndex == -1 ? Span{0, cls.paraListMax} : Span{baseIndex, baseIndex + 1};
}

Check check_class(const util_list_parameter_class_t* list, UTIL_S32 classIndex) noexcept {
    if (list == nullptr) return {Refusal::list_null};
    if (classIndex < -1 || classIndex >= list->classMax) return {Refusal::class_range, classIndex, list->classMax};
    if (list->pclass == nullptr) return {Refusal::pclass_null};
    return {};
}

// The class checks, then the parameter checks against every class the
// index designates, so that a call with -1 changes nothing unless all pass.
Check check_base(const util_list_parameter_class_t* list, UTIL_S32 classIndex, UTIL_S32 baseIndex) noexcept {
    Check c = check_class(list, classIndex);
    if (c.why != Refusal::none) return c;
    const Span span = classes_of(list, classIndex);
    for (UTIL_S32 i = span.first; i < span.end; ++i) {
        const util_parameter_class_t& cls = list->pclass[i];
        if (baseIndex < -1 || baseIndex >= cls.paraListMax) return {Refusal::base_range, i, cls.paraListMax};
        if (cls.paraList == nullptr) return {Refusal::paralist_null, i};
    }
    return {};
}

// True when the check failed: the operation at `where` then refuses with -1,
// after this has traced why in that operation's name.
bool refused(quillane::Where where, const Check& c, UTIL_S32 classIndex, UTIL_S32 baseIndex) noexcept {
    switch (c.why) {
        case Refusal::list_null:
            UTIL_TRACE_AT(where, "error: pclassList is NULL!\n");
            break;
        case Refusal::class_range:
            UTIL_TRACE_AT(where, "error; classIndex=%d, outRange[-1, %d)!!!\n", classIndex, c.limit);
            break;
        case Refusal::pclass_null:
            UTIL_TRACE_AT(where, "error: pclass is NULL!!!\n");
            break;
        case Refusal::base_range:
            UTIL_TRACE_AT(where, "error; baseIndex=%d, outRange[-1, %d)!!!\n", baseIndex, c.limit);
            break;
        case Refusal::paralist_null:
            UTIL_TRACE_AT(where, "error: pclass[%d]->paraList is NULL!!!\n", c.cls);
            break;
        case Refusal::none:
            return false;
    }
    return true;
}

// Calls f on every class the index designates.
template <typename F>
void each_class(util_list_parameter_class_t* list, UTIL_S32 classIndex, F f) noexcept {
    const Span span = classes_of(list, classIndex);
    for (UTIL_S32 i = span.first; i < span.end; ++i) f(list->pclass[i]);
}

// Calls f on every parameter the two indices designate.
template <typename F>
void each_parameter(util_list_parameter_class_t* list, UTIL_S32 classIndex, UTIL_S32 baseIndex, F f) noexcept {
    each_class(list, classIndex, [&](util_parameter_class_t& cls) {
        const Span span = params_of(cls, baseIndex);
        for (UTIL_S32 j = span.first; j < span.end; ++j) f(cls.paraList[j]);
    });
}

UTIL_S32 Func_parameter_base_run_class_function(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex,
                                                void** content) noexcept {
    if (refused(UTIL_HERE, check_class(pclassList, classIndex), classIndex, 0)) return -1;
    UTIL_S32 result = 0;
    const quillane::reentry::Scope busy(pclassList);
    const Span span = classes_of(pclassList, classIndex);
    for (UTIL_S32 i = span.first; i < span.end; ++i) {
        util_parameter_class_t* cls = &pclassList->pclass[i];
        // Kept before the call: the callback may replace its own slot.
        const util_parameter_class_fun_t fun = cls->setFunc_callback;
        if (fun == nullptr) {
            UTIL_TRACE("kiv: classIndex=%d, i=%d, pfun:NULL\n", classIndex, i);
            continue;
        }
        result = fun(cls, content);
        UTIL_TRACE("kiv: classIndex=%d, i=%d, pfun;%p\n", classIndex, i, reinterpret_cast<void*>(fun));
    }
    return result;
}

UTIL_S32 Func_parameter_base_register_base_function(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex,
                                                    UTIL_S32 baseIndex, util_parameter_base_fun_t fun) noexcept {
    if (refused(UTIL_HERE, check_base(pclassList, classIndex, baseIndex), classIndex, baseIndex)) return -1;
    each_parameter(pclassList, classIndex, baseIndex,
                   [&](util_parameter_base_one_t& para) { Func_parameter_base_set_base_function(&para, fun); });
    return 0;
}

// Set writes the caller's word into every designated record; get reads the
// last designated record's word (with one record, simply its word) and
// leaves the caller's word alone when no record is designated.
// Any non-zero direction means set. A C caller may pass values outside the
// enumeration (2, -1): those are read as the integer they are, since reading
// them as the enumeration is undefined in C++.
void move_flag(UTIL_U32& record, UTIL_U32* word, const UTIL_BOOL& isSetFlag) noexcept {
    std::underlying_type_t<UTIL_BOOL> direction;
    std::memcpy(&direction, &isSetFlag, sizeof direction);
    if (direction != 0) {
        record = *word;
    } else {
        *word = record;
    }
}

UTIL_S32 Func_parameter_base_register_base_flag(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex,
                                                UTIL_S32 baseIndex, UTIL_U32* baseFlag, UTIL_BOOL isSetFlag) noexcept {
    if (refused(UTIL_HERE, check_base(pclassList, classIndex, baseIndex), classIndex, baseIndex)) return -1;
    each_parameter(pclassList, classIndex, baseIndex,
                   [&](util_parameter_base_one_t& para) { move_flag(para.callback_flag, baseFlag, isSetFlag); });
    return 0;
}

UTIL_S32 Func_parameter_base_register_class_function(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex,
                                                     util_parameter_class_fun_t fun) noexcept {
    if (refused(UTIL_HERE, check_class(pclassList, classIndex), classIndex, 0)) return -1;
    each_class(pclassList, classIndex,
               [&](util_parameter_class_t& cls) { Func_parameter_base_set_class_function(&cls, fun); });
    return 0;
}

UTIL_S32 Func_parameter_base_register_class_flag(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex,
                                                 UTIL_U32* classFlag, UTIL_BOOL isSetFlag) noexcept {
    if (refused(UTIL_HERE, check_class(pclassList, classIndex), classIndex, 0)) return -1;
    each_class(pclassList, classIndex,
               [&](util_parameter_class_t& cls) { move_flag(cls.callback_flag, classFlag, isSetFlag); });
    return 0;
}

}  // namespace

util_ops_parameter_base_fun_t util_ops_parameter_base_fun = {
    Func_parameter_base_set_base_function,
    Func_parameter_base_set_class_function,
    Func_parameter_base_init_list_function,
    Func_parameter_base_exit_list_function,
    Func_parameter_base_run_class_function,
    Func_parameter_base_register_base_function,
    Func_parameter_base_register_base_flag,
    Func_parameter_base_register_class_function,
    Func_parameter_base_register_class_flag,
};
