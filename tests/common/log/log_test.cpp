// The log file, reports, the message catalogue and the assertion.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sal.h"
#include "vorx_log.h"
#include "../../sal/vorx_test_child.hpp"

namespace {

struct Sent {
    std::string message;
    vorx_u32_t severity;
};

std::vector<Sent> g_sent;
int g_nested_reports = 0;

vorx_er_t record_hook(void *context, const char *message, vorx_size_t length, vorx_u32_t severity)
{
    EXPECT_EQ(context, &g_sent);
    EXPECT_EQ(strlen(message), length);
    g_sent.push_back({message, severity});
    return vorx_er_success;
}

// A client whose server is gone: it reports its own failure, as the real one does.
vorx_er_t failing_hook(void *context, const char *message, vorx_size_t length, vorx_u32_t severity)
{
    g_sent.push_back({message, severity});
    ++g_nested_reports;
    vorx_report(vorx_msg_cannot_send_message);
    return vorx_er_connection_failure;
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/vorx_log_XXXXXX";
        dir_ = mkdtemp(pattern);
        path_ = dir_ + "/1-2.0.log";
        vorx_log_init(path_.c_str(), vorx_log_level_warning);
        g_sent.clear();
        g_nested_reports = 0;
    }
    void TearDown() override
    {
        vorx_log_set_client_hook(nullptr, nullptr);
        vorx_log_init(path_.c_str(), vorx_log_level_warning);
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    std::string log_text() const
    {
        std::ifstream in(path_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string line(const char *level, const std::string &text) const
    {
        return std::to_string(sal_thread_id()) + " : " + level + " : " + text + " \n";
    }

    std::string dir_, path_;
};

} // namespace

// ---- log file -------------------------------------------------------------------

TEST_F(LogTest, LinesCarryThreadLevelAndText)
{
    vorx_log(vorx_log_level_warning, "disk %d%% full", 93);
    vorx_log(vorx_log_level_error, "second");
    EXPECT_EQ(log_text(), line("WARNING", "disk 93% full") + line("ERROR", "second"));
}

TEST_F(LogTest, LevelGatesEachLine)
{
    vorx_log(vorx_log_level_info, "not at level 2");
    VORX_LOG(vorx_log_level_trace, "nor this");
    EXPECT_EQ(log_text(), "");
    vorx_log_init(path_.c_str(), vorx_log_level_trace);
    VORX_LOG(vorx_log_level_trace, "now %s", "yes");
    EXPECT_EQ(log_text(), line("TRACE", "now yes"));
}

TEST_F(LogTest, LevelFiveOrNegativeLeavesTheLogAsItWas)
{
    std::string other = dir_ + "/other.log";
    vorx_log_init(other.c_str(), 5);
    vorx_log_init(other.c_str(), -1);
    EXPECT_STREQ(vorx_log_file_name(), path_.c_str());
    EXPECT_EQ(g_vorx_log_level, vorx_log_level_warning);
    vorx_log(vorx_log_level_warning, "still here");
    EXPECT_EQ(log_text(), line("WARNING", "still here"));
    EXPECT_FALSE(sal_file_exists(other.c_str()));
}

TEST_F(LogTest, AnUnwritableFileLosesTheLineAndNothingElse)
{
    vorx_log_init((dir_ + "/no/such/dir/x.log").c_str(), vorx_log_level_warning);
    vorx_log(vorx_log_level_critical, "lost");
    vorx_log_init(path_.c_str(), vorx_log_level_warning);
    vorx_log(vorx_log_level_warning, "kept");
    EXPECT_EQ(log_text(), line("WARNING", "kept"));
}

TEST_F(LogTest, FileNameAndLineFormats)
{
    char name[128];
    vorx_log_format_file_name(name, sizeof(name), "/results/", 100, 200, 3);
    EXPECT_STREQ(name, "/results/100-200.3.log");
    char text[32];
    vorx_size_t length = vorx_log_format_line(text, sizeof(text), vorx_log_level_info,
                                              "a text much longer than the buffer");
    EXPECT_EQ(length, sizeof(text) - 1) << "cut, never overrun";
}

// ---- reports ----------------------------------------------------------------------

TEST_F(LogTest, WithoutAClientAReportIsOnlyALogLine)
{
    vorx_report(vorx_msg_cannot_set_timer, "EINVAL");
    EXPECT_EQ(log_text(), line("ERROR", "Cannot set timer: EINVAL."));
    EXPECT_TRUE(g_sent.empty());
}

TEST_F(LogTest, TheClientGetsTheXmlFormAndTheSeverity)
{
    vorx_log_set_client_hook(record_hook, &g_sent);
    vorx_report(vorx_msg_server_notification_failed, "on forking a new process", 14);
    vorx_report(vorx_msg_cannot_set_signal_handler, 27, "Invalid argument");
    vorx_report(vorx_msg_wrong_formatting);
    ASSERT_EQ(g_sent.size(), 3u);
    EXPECT_EQ(g_sent[0].message,
              "<?xml ?><msg name='112'><arg name='failed_action' value='on forking a new process' "
              "/><arg name='detach_notification_result' value='14' /></msg>");
    EXPECT_EQ(g_sent[0].severity, 2u);
    EXPECT_EQ(g_sent[1].message, "<?xml ?><msg name='39'><arg name='signo' value='27' /><arg "
                                 "name='error' value='Invalid argument' /></msg>");
    EXPECT_EQ(g_sent[1].severity, 1u);
    EXPECT_EQ(g_sent[2].message, "<?xml ?><msg name='55'></msg>");
    EXPECT_EQ(log_text(),
              line("WARNING", "Failed to notify the runtool server on forking a new process: '14'.") +
                  line("ERROR", "Cannot set handler for signal 27: Invalid argument.") +
                  line("ERROR", "Wrong formatting"));
}

TEST_F(LogTest, LevelsBelowTheSettingAndQuietReportsStayLocal)
{
    vorx_log_set_client_hook(record_hook, &g_sent);
    vorx_report(vorx_msg_instrumentation_started, "2026.01.01 10:00:00"); // INFO at level 2
    EXPECT_TRUE(g_sent.empty());
    EXPECT_EQ(log_text(), "");

    vorx_log_init(path_.c_str(), vorx_log_level_trace);
    vorx_report_at(vorx_msg_instrumentation_started, vorx_log_level_info, vorx_report_local_only,
                   "2026.01.01 10:00:00");
    EXPECT_TRUE(g_sent.empty()) << "local-only reports are not sent";
    vorx_report_at(vorx_msg_instrumentation_failed, vorx_log_level_trace, vorx_report_default,
                   "t", "libc.so", "malloc");
    EXPECT_TRUE(g_sent.empty()) << "TRACE has no server severity";
    vorx_report_at(vorx_msg_instrumentation_failed, vorx_log_level_warning, vorx_report_default,
                   "t", "libc.so", "malloc");
    ASSERT_EQ(g_sent.size(), 1u);
    EXPECT_EQ(g_sent[0].severity, 2u);
}

TEST_F(LogTest, MessagesAreCutTo1023Bytes)
{
    vorx_log_set_client_hook(record_hook, &g_sent);
    std::string huge(3000, 'f');
    vorx_report(vorx_msg_symbol_not_found, huge.c_str());
    ASSERT_EQ(g_sent.size(), 1u);
    EXPECT_EQ(g_sent[0].message.size(), 1023u);
    EXPECT_EQ(g_sent[0].message.rfind("<?xml ?><msg name='78'><arg name='symbol' value='fff", 0),
              0u);
}

TEST_F(LogTest, AClientThatFailsReportsOnceWithoutRecursion)
{
    vorx_log_set_client_hook(failing_hook, nullptr);
    vorx_report(vorx_msg_cannot_change_state);
    EXPECT_EQ(g_nested_reports, 1) << "the nested report was not sent again";
    ASSERT_EQ(g_sent.size(), 1u);
    EXPECT_EQ(log_text(), line("ERROR", "Cannot change state.") +
                              line("ERROR", "Cannot send message to server communication node."));
}

TEST_F(LogTest, CriticalReportsReachStandardErrorAndFatalOnesEndTheProcess)
{
    ChildResult child = run_in_child([] { vorx_report(vorx_msg_cannot_disable_altstack); });
    EXPECT_TRUE(child.exited_with(0)) << "critical but not fatal";
    EXPECT_EQ(child.err, "Cannot disable alternate signal stack. Malfunction is possible.");

    child = run_in_child([] { vorx_report(vorx_msg_cannot_put_record, "vorx_tp_write_0_cbk"); });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    EXPECT_EQ(child.err, "vorx_tp_write_0_cbk: Cannot put the record into a trace file.");
    EXPECT_NE(log_text().find(" : CRITICAL : vorx_tp_write_0_cbk: Cannot put the record into a "
                              "trace file. \n"),
              std::string::npos)
        << "the line is in the log before the crash";
}

// ---- catalogue ----------------------------------------------------------------------

namespace {

std::vector<std::string> conversions(const std::string &format)
{
    std::vector<std::string> found;
    static const std::regex conversion("%%|%[-+ #0-9.]*(?:l|ll|h|z)?[diuxXsfcp]");
    for (std::sregex_iterator it(format.begin(), format.end(), conversion), end; it != end; ++it)
        if (it->str() != "%%")
            found.push_back(it->str());
    return found;
}

} // namespace

TEST(MessageCatalogue, EveryEntryIsWellFormed)
{
    vorx_size_t count = 0;
    const vorx_message_info *messages = vorx_message_catalogue(&count);
    ASSERT_EQ(count, 49u);
    std::set<std::string> names;
    for (vorx_size_t i = 0; i < count; ++i) {
        const vorx_message_info &m = messages[i];
        SCOPED_TRACE(m.name);
        if (i > 0) {
            EXPECT_GT(m.id, messages[i - 1].id) << "ids ascend and are unique";
        }
        EXPECT_TRUE(names.insert(m.name).second);
        std::string head = "<?xml ?><msg name='" + std::to_string(m.id) + "'>";
        EXPECT_EQ(std::string(m.xml).rfind(head, 0), 0u) << m.xml;
        EXPECT_EQ(std::string(m.xml).substr(strlen(m.xml) - 6), "</msg>");
        EXPECT_EQ(conversions(m.text), conversions(m.xml))
            << "the text and the message take the same arguments in the same order";
        EXPECT_EQ(vorx_message_lookup(m.id), &m);
        EXPECT_LT(m.level, vorx_log_level_trace);
        if (m.fatal) {
            EXPECT_EQ(m.level, vorx_log_level_critical) << "fatal sites are critical";
        }
    }
    EXPECT_EQ(vorx_message_lookup(1), nullptr) << "gaps are ids never raised";
    EXPECT_EQ(vorx_message_lookup(113), nullptr);
}

// ---- assertion ----------------------------------------------------------------------

namespace {

const char kSupport[] = ". Please contact the technical support. ";

// What the assertion writes to standard error (syslog may copy its line there first).
std::string assertion_report(const ChildResult &child)
{
    size_t at = child.err.find("Assertion failed: ");
    return at == std::string::npos ? child.err : child.err.substr(at);
}

} // namespace

TEST_F(LogTest, AssertionNamesFileLineAndExpressionThenCrashes)
{
    ChildResult child = run_in_child([] {
        vorx_assert_raise_assert("/src/vorx/runtime/init.cpp", 91, "vorx_create",
                                 "(err == vorx_er_success)", "err == %d", 2);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    EXPECT_EQ(assertion_report(child),
              std::string("Assertion failed: init:91: (err == vorx_er_success) : err == 2") +
                  kSupport);
    EXPECT_NE(log_text().find(" : CRITICAL : Assertion failed: init:91: "), std::string::npos);
}

TEST_F(LogTest, AssertionPathForms)
{
    struct Case {
        std::string file;
        std::string head;
    } cases[] = {
        {"C:\\build\\src\\writer.c", "writer:5: (x) : "},
        {"plain.c", "(x) : "},
        {"/dir.d/noext", "noext:5: (x) : "},
        // Only the last 512 characters of the path are kept: the directory
        // part is cut, the base name and line survive.
        {"/" + std::string(600, 'p') + "/" + std::string(400, 'n') + ".cpp",
         std::string(400, 'n') + ":5: (x) : "},
    };
    for (const Case &c : cases) {
        ChildResult child = run_in_child(
            [&] { vorx_assert_raise_assert(c.file.c_str(), 5, "f", "(x)", nullptr); });
        EXPECT_EQ(assertion_report(child), "Assertion failed: " + c.head + kSupport) << c.file;
    }
}

TEST_F(LogTest, AssertionGoesToTheClientAsMessage2)
{
    ChildResult child = run_in_child([] {
        vorx_log_set_client_hook(
            [](void *, const char *message, vorx_size_t, vorx_u32_t severity) -> vorx_er_t {
                fprintf(stderr, "[sent %u] %s\n", severity, message);
                return vorx_er_success;
            },
            nullptr);
        int *data = nullptr;
        VORX_ASSERT(data != NULL);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    EXPECT_NE(child.err.find("[sent 0] <?xml ?><msg name='2'><arg name='expr' value='log_test:"),
              std::string::npos)
        << child.err;
    EXPECT_NE(child.err.find(": (data != __null) : ' /></msg>"), std::string::npos) << child.err;
}

TEST_F(LogTest, BelowZeroAnAssertionIsOnlyASyslogLine)
{
    ChildResult child = run_in_child([] {
        g_vorx_log_level = -1;
        VORX_ASSERT(!vorx_bool_for_assert("can't generate file name"));
        fprintf(stderr, "went on");
    });
    EXPECT_TRUE(child.exited_with(0));
    EXPECT_EQ(child.err.find("Assertion failed"), std::string::npos);
    EXPECT_NE(child.err.find("went on"), std::string::npos);
    EXPECT_EQ(log_text(), "");
}
