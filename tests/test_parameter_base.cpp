// The parameter registry through the public table: the deep copy of the
// application's classes, the traces, the argument checks, and the class
// mutex shared by callbacks and application threads.
#include <thread>

#include "test_support.h"

using qtest::FullyMatches;

namespace {

util_ops_parameter_base_fun_t* reg() { return util_ops_pfun->parameter_base; }

// One whole trace line of the named operation, as a regular expression.
std::string L(const std::string& func, const std::string& text) {
    return R"(\[util_parameter_base_function\.cpp \+\d+ +Func_parameter_base_)" + func + R"(\] )" + text + R"(\n)";
}
const std::string kInit = "init_list_function", kExit = "exit_list_function", kRun = "run_class_function";
// The closing line of a build shows the class record's size, which differs
// between targets (the mutex does).
std::string size_line() {
    const std::string n = std::to_string(sizeof(util_parameter_class_t));
    return L(kInit, "size;" + n + ", " + n);
}

UTIL_S32 ret5(util_parameter_class_t*, void**) { return 5; }
UTIL_S32 retm2(util_parameter_class_t*, void**) { return -2; }
UTIL_S32 ret7(util_parameter_class_t*, void**) { return 7; }
UTIL_S32 base_cb(util_parameter_base_one_t*, void**) { return 0; }

// Every field of the list that the registry sets, as one text.
std::string dump(const util_list_parameter_class_t& l) {
    std::ostringstream o;
    for (int i = 0; i < l.classMax; ++i) {
        const util_parameter_class_t& c = l.pclass[i];
        o << c.path << ' ' << c.paraListMax << ' ' << (c.setFunc_callback != nullptr) << ' ' << c.callback_flag << ' '
          << c.bit_param << ' ' << int(c.ops_flag) << " [";
        for (int j = 0; j < c.paraListMax; ++j) {
            const util_parameter_base_one_t& p = c.paraList[j];
            o << p.cur << ',' << p.def << ',' << p.min << ',' << p.max << ',' << (p.text ? p.text : "null") << ','
              << p.description << ',' << p.name << ',' << (p.setFunc_callback == base_cb) << ',' << p.callback_flag
              << ';';
        }
        o << "] ";
    }
    return o.str();
}

class ParameterTest : public qtest::DebugRecordTest {
protected:
    void SetUp() override {
        DebugRecordTest::SetUp();
        // A marker left by an interrupted run would add lines to every trace.
        ASSERT_TRUE(marker_.held()) << "a stale " << marker_.path() << " cannot be removed";
        log_ = use_log("param.log");
    }
    void TearDown() override {
        reg()->exit_list(&list_);
        DebugRecordTest::TearDown();
    }
    // Classes of 2, 0 and 1 parameters, with callbacks returning 5, -2 and 7.
    void build() {
        util_parameter_base_one_t a[2] = {{1, 2, 0, 9, nullptr, text_, "da", "na", base_cb, 3},
                                          {4, 5, -1, 6, nullptr, nullptr, "db", "nb", nullptr, 0}};
        util_parameter_base_one_t c[1] = {{7, 7, 7, 7, nullptr, nullptr, "dc", "nc", nullptr, 0}};
        util_parameter_class_t app[3] = {{"/a", a, 2, ret5, 11, {}, 0xff, UTIL_PARAMETER_OPS_FLAG_GET},
                                         {"/b", nullptr, 0, retm2, 0, {}, 0, 0},
                                         {"/c", c, 1, ret7, 0, {}, 0, 0}};
        ASSERT_EQ(reg()->init_list(&list_, app, 3), 0);
    }
    std::string log_tail() {  // the log after the first build
        const std::string log = qtest::read_file(log_);
        return log.substr(log.find('\n', log.find("] size;")) + 1);
    }
    static constexpr const char* kBuilt = "/a 2 1 0 0 0 [1,2,0,9,text,da,na,1,0;4,5,-1,6,null,db,nb,0,0;] /b 0 1 0 0 0 [] "
                                          "/c 1 1 0 0 0 [7,7,7,7,null,dc,nc,0,0;] ";

    qtest::MachineWideFile marker_{qtest::kParameterMarker};
    std::string log_;
    char text_[8] = "text";
    util_list_parameter_class_t list_{};
};

// Flags and words start cleared, callbacks are copied, the text is a copy of
// its own, and each class has a working mutex of its own.
TEST_F(ParameterTest, BuildIsADeepCopyIndependentOfTheApplicationsArray) {
    build();
    EXPECT_EQ(dump(list_), kBuilt);
    std::strcpy(text_, "Jext");
    EXPECT_EQ(dump(list_), kBuilt);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(pthread_mutex_trylock(&list_.pclass[i].used_mutex), 0);
        EXPECT_EQ(pthread_mutex_unlock(&list_.pclass[i].used_mutex), 0);
    }
}

// A rebuild releases the old list first; refused arguments change nothing; a
// class that cannot be copied ends the build with an empty list.
TEST_F(ParameterTest, ReinitRefusalsFailuresAndReleaseTraceInOrder) {
    build();
    util_parameter_class_t one[1] = {{"/one", nullptr, 0, nullptr, 0, {}, 0, 0}};
    ASSERT_EQ(reg()->init_list(&list_, one, 1), 0);  // LeakSanitizer: the old text copy is freed
    util_parameter_class_t hollow[1] = {{"/hollow", nullptr, 2, nullptr, 0, {}, 0, 0}};  // parameters without an array
    for (auto [list, ppc, max] : {std::tuple{&list_, one, 0}, {&list_, one, -3}, {&list_, nullptr, 1}, {nullptr, one, 1},
                                  {&list_, hollow, 1}}) {
        EXPECT_EQ(reg()->init_list(list, ppc, max), -1);
    }
    EXPECT_EQ(dump(list_), "/one 0 0 0 0 0 [] ");
    util_parameter_class_t bad[2] = {one[0], {"/neg", nullptr, -1, nullptr, 0, {}, 0, 0}};
    testing::internal::CaptureStderr();
    EXPECT_EQ(reg()->init_list(&list_, bad, 2), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(R"(DBG_ERR:util_parameter_base_function\.cpp Func_parameter_base_init_list_function)"
                             R"(\[\d{4}\] error: malloc failed!!!!!)"));
    EXPECT_EQ(list_.pclass, nullptr);
    EXPECT_EQ(list_.classMax, 0);
    list_.classMax = 5;  // a list never built still reports and resets its count
    EXPECT_EQ(reg()->exit_list(&list_), 0);
    EXPECT_EQ(list_.classMax, 0);
    EXPECT_EQ(reg()->exit_list(nullptr), -1);
    const std::string refused = "error: pclassList or ppc is NULL, max:", built = "malloc succeed, strlist num;";
    EXPECT_THAT(qtest::read_file(log_),
                FullyMatches(L(kInit, "malloc succeed, pc num;3") + L(kInit, built + "2") + L(kInit, built + "0") +
                             L(kInit, built + "1") + size_line() + L(kExit, "free succeed, num;3") +
                             L(kInit, "malloc succeed, pc num;1") + L(kInit, built + "0") + size_line() +
                             L(kInit, refused + "0!!!") + L(kInit, refused + "-3!!!") + "(" +
                             L(kInit, refused + "1!!!") + "){3}" + L(kExit, "free succeed, num;1") +
                             L(kInit, "malloc succeed, pc num;2") + L(kInit, built + "0") +
                             L(kInit, "error, malloc failed!!!") + L(kExit, "free succeed, num;5") +
                             L(kExit, "error: pclassList is NULL!")));
}

TEST_F(ParameterTest, MarkerFileAddsOneLinePerParameterAndPerClass) {
    if (geteuid() != 0) GTEST_SKIP() << "creating " << marker_.path() << " needs root";
    qtest::write_file(marker_.path(), "");
    build();
    marker_.remove();
    ASSERT_TRUE(marker_.held());
    EXPECT_THAT(qtest::read_file(log_),
                FullyMatches(L(kInit, "malloc succeed, pc num;3") + L(kInit, "malloc succeed, strlist num;2") +
                             L(kInit, R"(kiv: \(0,0\) name=na, cur=1, def=2, min=0, max=9)") +
                             L(kInit, R"(kiv: \(0,1\) name=nb, cur=4, def=5, min=-1, max=6)") +
                             L(kInit, "kiv: i=0, path=/a, max=2") + L(kInit, "malloc succeed, strlist num;0") +
                             L(kInit, "kiv: i=1, path=/b, max=0") + L(kInit, "malloc succeed, strlist num;1") +
                             L(kInit, R"(kiv: \(2,0\) name=nc, cur=7, def=7, min=7, max=7)") +
                             L(kInit, "kiv: i=2, path=/c, max=1") + size_line()));
}

// run_class calls one class or every class (-1) and returns the last result,
// handing the callback the list's own record. A class callback may register
// and run classes of the list running it, but releasing or rebuilding that
// list is refused: run_class still walks it.
std::vector<int> g_reentry;
UTIL_S32 meddle(util_parameter_class_t* cls, void** content) {
    auto* list = static_cast<util_list_parameter_class_t*>(*content);
    if (&list->pclass[0] == cls && g_reentry.empty()) {
        g_reentry = {0};  // the inner run_class below comes back here
        util_parameter_class_t one[1] = {{"/one", nullptr, 0, nullptr, 0, {}, 0, 0}};
        g_reentry = {reg()->exit_list(list), reg()->init_list(list, one, 1), reg()->register_class_func(list, 2, ret7),
                     reg()->run_class(list, 0, content)};
    }
    return cls->paraListMax * 10 + static_cast<int>(cls - list->pclass);
}

TEST_F(ParameterTest, RunClassAndWhatItsCallbacksMayDo) {
    build();
    EXPECT_EQ(reg()->run_class(&list_, -1, nullptr), 7);  // 5, -2, 7 in index order
    EXPECT_EQ(reg()->run_class(&list_, 1, nullptr), -2);
    ASSERT_EQ(reg()->register_class_func(&list_, -1, meddle), 0);
    void* content = &list_;
    g_reentry.clear();
    EXPECT_EQ(reg()->run_class(&list_, -1, &content), 7);  // class 2 was given ret7 meanwhile
    EXPECT_EQ(g_reentry, (std::vector<int>{-1, -1, 0, 20}));  // run_class(0) ran meddle again: 2 parameters
    EXPECT_EQ(reg()->run_class(&list_, 1, &content), 1);
    EXPECT_EQ(dump(list_), kBuilt);
    ASSERT_EQ(reg()->register_class_func(&list_, -1, nullptr), 0);
    EXPECT_EQ(reg()->run_class(&list_, -1, nullptr), 0);
    const std::string busy = "error: pclassList is in use by a class callback!", fun = "kiv: classIndex=";
    EXPECT_THAT(log_tail(),
                FullyMatches(L(kRun, fun + "-1, i=0, pfun;0x[0-9a-f]+") + L(kRun, fun + "-1, i=1, pfun;0x[0-9a-f]+") +
                             L(kRun, fun + "-1, i=2, pfun;0x[0-9a-f]+") + L(kRun, fun + "1, i=1, pfun;0x[0-9a-f]+") +
                             L(kExit, busy) + L(kInit, busy) + L(kRun, fun + "0, i=0, pfun;0x[0-9a-f]+") + "(" +
                             L(kRun, fun + R"(-1, i=\d, pfun;0x[0-9a-f]+)") + "){3}" +
                             L(kRun, fun + "1, i=1, pfun;0x[0-9a-f]+") + L(kRun, fun + "-1, i=0, pfun:NULL") +
                             L(kRun, fun + "-1, i=1, pfun:NULL") + L(kRun, fun + "-1, i=2, pfun:NULL")));
}

// Each refusal names what is wrong, in this order, and changes nothing.
TEST_F(ParameterTest, ArgumentChecksComeInOrderAndChangeNothing) {
    build();
    UTIL_U32 word = 0x55;
    EXPECT_EQ(reg()->register_class_flag(nullptr, 0, &word, UTIL_TRUE), -1);
    EXPECT_EQ(reg()->run_class(&list_, -2, nullptr), -1);
    EXPECT_EQ(reg()->register_class_func(&list_, 3, nullptr), -1);
    EXPECT_EQ(reg()->register_base_func(&list_, 0, -2, nullptr), -1);
    EXPECT_EQ(reg()->register_base_flag(&list_, 0, 2, &word, UTIL_TRUE), -1);
    // With -1 the parameter index must suit every class; the first that cannot is named.
    EXPECT_EQ(reg()->register_base_flag(&list_, -1, 1, &word, UTIL_TRUE), -1);
    util_parameter_base_one_t* kept = std::exchange(list_.pclass[2].paraList, nullptr);
    EXPECT_EQ(reg()->register_base_func(&list_, 2, 0, nullptr), -1);
    list_.pclass[2].paraList = kept;
    EXPECT_EQ(dump(list_), kBuilt);
    ASSERT_EQ(reg()->exit_list(&list_), 0);
    EXPECT_EQ(reg()->register_class_flag(&list_, 0, &word, UTIL_FALSE), -1);
    EXPECT_EQ(reg()->run_class(&list_, -1, nullptr), -1);
    EXPECT_EQ(word, 0x55u);
    EXPECT_THAT(log_tail(), FullyMatches(L("register_class_flag", "error: pclassList is NULL!") +
                                         L(kRun, R"(error; classIndex=-2, outRange\[-1, 3\)!!!)") +
                                         L("register_class_function", R"(error; classIndex=3, outRange\[-1, 3\)!!!)") +
                                         L("register_base_function", R"(error; baseIndex=-2, outRange\[-1, 2\)!!!)") +
                                         L("register_base_flag", R"(error; baseIndex=2, outRange\[-1, 2\)!!!)") +
                                         L("register_base_flag", R"(error; baseIndex=1, outRange\[-1, 0\)!!!)") +
                                         L("register_base_function", R"(error: pclass\[2\]->paraList is NULL!!!)") +
                                         L(kExit, "free succeed, num;3") +
                                         L("register_class_flag", R"(error; classIndex=0, outRange\[-1, 0\)!!!)") +
                                         L(kRun, "error: pclass is NULL!!!")));
}

// A flag is written (any non-zero "set") or read back; -1 reaches every
// record, and a read with -1 gives the last record's word.
TEST_F(ParameterTest, FlagsRoundTripAndMinusOneMeansEveryRecord) {
    build();
    UTIL_U32 word = 0xdead, set = 0xfeedbeef;
    ASSERT_EQ(reg()->register_class_flag(&list_, 1, &word, UTIL_FALSE), 0);
    EXPECT_EQ(word, 0u);
    ASSERT_EQ(reg()->register_class_flag(&list_, 1, &set, static_cast<UTIL_BOOL>(2)), 0);  // a C caller's "true"
    ASSERT_EQ(reg()->register_class_flag(&list_, 1, &word, UTIL_FALSE), 0);
    EXPECT_EQ(word, 0xfeedbeefu);
    word = 9;
    ASSERT_EQ(reg()->register_class_flag(&list_, -1, &word, UTIL_TRUE), 0);
    ASSERT_EQ(reg()->register_base_flag(&list_, -1, -1, &word, UTIL_TRUE), 0);
    ASSERT_EQ(reg()->register_base_func(&list_, 0, -1, base_cb), 0);
    ASSERT_EQ(reg()->register_base_func(&list_, 2, 0, base_cb), 0);
    EXPECT_EQ(dump(list_), "/a 2 1 9 0 0 [1,2,0,9,text,da,na,1,9;4,5,-1,6,null,db,nb,1,9;] /b 0 1 9 0 0 [] "
                           "/c 1 1 9 0 0 [7,7,7,7,null,dc,nc,1,9;] ");
    set = 4;
    ASSERT_EQ(reg()->register_base_flag(&list_, 2, 0, &set, UTIL_TRUE), 0);
    ASSERT_EQ(reg()->register_base_flag(&list_, -1, -1, &word, UTIL_FALSE), 0);
    EXPECT_EQ(word, 4u);
}

// A callback that updates its class under the class's own mutex.
UTIL_S32 locked_increment(util_parameter_class_t* cls, void** content) {
    pthread_mutex_lock(&cls->used_mutex);
    cls->bit_param += 1;
    *static_cast<long*>(*content) += 1;
    return pthread_mutex_unlock(&cls->used_mutex);
}

TEST_F(ParameterTest, ClassMutexSerialisesCallbacksAndApplicationThreads) {
    build();
    qtest::dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;  // the trace writer takes no lock of its own
    ASSERT_EQ(reg()->register_class_func(&list_, 0, locked_increment), 0);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {  // half run the class, half lock it directly
        threads.emplace_back([&, t] {
            void* content = &counter;
            for (int r = 0; r < 2000; ++r) {
                t % 2 ? locked_increment(&list_.pclass[0], &content) : reg()->run_class(&list_, 0, &content);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(counter, 8000);
    EXPECT_EQ(list_.pclass[0].bit_param, 8000u);
}

}  // namespace
