// The parameter registry through the public table.
#include <span>

#include "test_support.h"

namespace {

util_ops_parameter_base_fun_t* reg() { return util_ops_pfun->parameter_base; }

template <int N>
UTIL_S32 ret(util_parameter_class_t*, void**) { return N; }
UTIL_S32 base_cb(util_parameter_base_one_t*, void**) { return 0; }

// Every field of the list that the registry sets, as one text.
std::string dump(const util_list_parameter_class_t& l) {
    std::ostringstream o;
    for (const util_parameter_class_t& c : std::span(l.pclass, l.classMax)) {
        o << c.path << ' ' << !!c.setFunc_callback << c.callback_flag << c.bit_param << +c.ops_flag << '[';
        for (const util_parameter_base_one_t& p : std::span(c.paraList, c.paraListMax)) {
            o << p.cur << ',' << p.def << ',' << p.min << ',' << p.max << ',' << (p.text ? p.text : "null") << ','
              << p.name << ',' << (p.setFunc_callback == base_cb) << p.callback_flag << ';';
        }
        o << "] ";
    }
    return o.str();
}

// The messages of a log, without their trace prefixes.
std::string messages(const std::string& path) {
    return std::regex_replace(qtest::read_file(path), std::regex(R"(\[\S+ \+\d+ +\w+\] )"), "");
}

class ParameterTest : public qtest::DebugRecordTest {
protected:
    void SetUp() override {
        DebugRecordTest::SetUp();
        ASSERT_TRUE(marker_.held()) << "a stale " << marker_.path() << " cannot be removed";  // it adds traces
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
        util_parameter_class_t app[3] = {{"/a", a, 2, ret<5>, 11, {}, 0xff, UTIL_PARAMETER_OPS_FLAG_GET},
                                         {"/b", nullptr, 0, ret<-2>, 0, {}, 0, 0}, {"/c", c, 1, ret<7>, 0, {}, 0, 0}};
        ASSERT_EQ(reg()->init_list(&list_, app, 3), 0);
    }
    static constexpr const char* kBuilt =
        "/a 1000[1,2,0,9,text,na,10;4,5,-1,6,null,nb,00;] /b 1000[] /c 1000[7,7,7,7,null,nc,00;] ";
    qtest::MachineWideFile marker_{qtest::kParameterMarker};
    std::string log_;
    char text_[8] = "text";
    util_list_parameter_class_t list_{};
};

// A deep copy, traced in detail while the marker exists; a rebuild frees the old list, refusals change nothing.
TEST_F(ParameterTest, BuildRebuildRefusalsAndRelease) {
    const bool detail = geteuid() == 0;  // creating the marker needs root
    if (detail) qtest::write_file(marker_.path(), "");
    build();
    marker_.remove();
    std::strcpy(text_, "Jext");
    EXPECT_EQ(dump(list_), kBuilt);
    util_parameter_class_t one[1] = {{"/one", nullptr, 0, nullptr, 0, {}, 0, 0}};
    ASSERT_EQ(reg()->init_list(&list_, one, 1), 0);  // LeakSanitizer: the old text copy is freed
    util_parameter_class_t hollow[1] = {{"/hollow", nullptr, 2, nullptr, 0, {}, 0, 0}};  // no array for its 2
    for (auto [list, ppc, max] : {std::tuple{&list_, one, 0}, {&list_, one, -3}, {&list_, nullptr, 1},
                                  {nullptr, one, 1}, {&list_, hollow, 1}}) {
        EXPECT_EQ(reg()->init_list(list, ppc, max), -1);
    }
    EXPECT_EQ(dump(list_), "/one 0000[] ");
    util_parameter_class_t bad[2] = {one[0], {"/neg", nullptr, -1, nullptr, 0, {}, 0, 0}};
    EXPECT_EQ(reg()->init_list(&list_, bad, 2), -1);
    EXPECT_EQ(list_.pclass, nullptr);
    EXPECT_EQ(reg()->exit_list(nullptr), -1);
    const std::string no = "error: pclassList or ppc is NULL, max:";  // allocation traces skipped
    const std::string log = messages(log_);
    EXPECT_THAT(log, testing::HasSubstr(detail ? "nb, cur=4, def=5, min=-1, max=6\nkiv: i=0, path=/a, max=2\n" : ""));
    EXPECT_EQ(std::regex_replace(log, std::regex("malloc succeed.*\n|size;.*\n|kiv: .*\n"), ""),
              "free succeed, num;3\n" + no + "0!!!\n" + no + "-3!!!\n" + no + "1!!!\n" + no + "1!!!\n" + no +
                  "1!!!\nfree succeed, num;1\nerror, malloc failed!!!\nerror: pclassList is NULL!\n");
}

// A class callback may register and run classes of the list running it, but
// not release or rebuild it: run_class still walks it. It may take the class mutex.
std::vector<int> g_reentry;
UTIL_S32 meddle(util_parameter_class_t* cls, void** content) {
    auto* list = static_cast<util_list_parameter_class_t*>(*content);
    EXPECT_EQ(pthread_mutex_trylock(&cls->used_mutex) + pthread_mutex_unlock(&cls->used_mutex), 0);
    if (&list->pclass[0] == cls && g_reentry.empty()) {
        g_reentry = {0};  // the inner run_class below comes back here
        util_parameter_class_t one[1] = {{"/one", nullptr, 0, nullptr, 0, {}, 0, 0}};
        g_reentry = {reg()->exit_list(list), reg()->init_list(list, one, 1),
                     reg()->register_class_func(list, 2, ret<7>), reg()->run_class(list, 0, content)};
    }
    return cls->paraListMax * 10 + static_cast<int>(cls - list->pclass);
}

// run_class returns the last result; refusals name what is wrong and change nothing;
// -1 reaches every record.
TEST_F(ParameterTest, RunClassRefusalsAndFlags) {
    build();
    EXPECT_EQ(reg()->run_class(&list_, -1, nullptr), 7);  // 5, -2, 7 in index order
    EXPECT_EQ(reg()->run_class(&list_, 1, nullptr), -2);
    ASSERT_EQ(reg()->register_class_func(&list_, -1, meddle), 0);
    void* content = &list_;
    EXPECT_EQ(reg()->run_class(&list_, -1, &content), 7);  // class 2 was given ret<7> meanwhile
    EXPECT_EQ(g_reentry, (std::vector<int>{-1, -1, 0, 20}));  // run_class(0) ran meddle again: 2 parameters
    qtest::write_file(log_, "");
    UTIL_U32 word = 0x55, set = 0xfeedbeef;
    EXPECT_EQ(reg()->register_class_flag(nullptr, 0, &word, UTIL_TRUE), -1);
    EXPECT_EQ(reg()->run_class(&list_, -2, nullptr), -1);
    EXPECT_EQ(reg()->register_class_func(&list_, 3, nullptr), -1);
    EXPECT_EQ(reg()->register_base_func(&list_, 0, -2, nullptr), -1);
    EXPECT_EQ(reg()->register_base_flag(&list_, 0, 2, &word, UTIL_TRUE), -1);
    EXPECT_EQ(reg()->register_base_flag(&list_, -1, 1, &word, UTIL_TRUE), -1);  // class 1 has no parameter 1
    EXPECT_EQ(dump(list_), kBuilt);
    EXPECT_EQ(word, 0x55u);

    ASSERT_EQ(reg()->register_class_flag(&list_, 1, &set, static_cast<UTIL_BOOL>(2)), 0);  // a C caller's "true"
    ASSERT_EQ(reg()->register_class_flag(&list_, 1, &word, UTIL_FALSE), 0);
    EXPECT_EQ(word, 0xfeedbeefu);
    word = 9;
    ASSERT_EQ(reg()->register_class_flag(&list_, -1, &word, UTIL_TRUE), 0);
    ASSERT_EQ(reg()->register_base_flag(&list_, -1, -1, &word, UTIL_TRUE), 0);
    ASSERT_EQ(reg()->register_base_func(&list_, 0, -1, base_cb), 0);
    ASSERT_EQ(reg()->register_base_func(&list_, 2, 0, base_cb), 0);
    EXPECT_EQ(dump(list_),
              "/a 1900[1,2,0,9,text,na,19;4,5,-1,6,null,nb,19;] /b 1900[] /c 1900[7,7,7,7,null,nc,19;] ");
    ASSERT_EQ(reg()->register_class_func(&list_, -1, nullptr), 0);
    EXPECT_EQ(reg()->run_class(&list_, -1, nullptr), 0);
    ASSERT_EQ(reg()->exit_list(&list_), 0);
    EXPECT_EQ(reg()->register_class_flag(&list_, 0, &word, UTIL_FALSE), -1);
    EXPECT_EQ(reg()->run_class(&list_, -1, nullptr), -1);
    EXPECT_EQ(messages(log_), "error: pclassList is NULL!\nerror; classIndex=-2, outRange[-1, 3)!!!\n"
                              "error; classIndex=3, outRange[-1, 3)!!!\nerror; baseIndex=-2, outRange[-1, 2)!!!\n"
                              "error; baseIndex=2, outRange[-1, 2)!!!\nerror; baseIndex=1, outRange[-1, 0)!!!\n"
                              "kiv: classIndex=-1, i=0, pfun:NULL\nkiv: classIndex=-1, i=1, pfun:NULL\n"
                              "kiv: classIndex=-1, i=2, pfun:NULL\nfree succeed, num;3\n"
                              "error; classIndex=0, outRange[-1, 0)!!!\nerror: pclass is NULL!!!\n");
}

}  // namespace
