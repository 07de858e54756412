// zol-platform and zolctl as people use them: as processes, by their options, signals, keys and output.
#include <Logging/Escaped.h>
#include <Poco/Net/ServerSocket.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <memory>

#include "Process.h"
#include "RawPeer.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;

const char* const DESCRIPTION = R"({"services":[
  {"name":"Media","resources":{
    "clock":{"now":{"count":{"$counter":{"everyMs":20}}}},
    "albums":{"a1":{"title":"Album"}},
    "tracks":{"0xa":{"title":"First","album":{"uri":"/Media/albums/a1"}},"0xb":{"title":"Second"}}}},
  {"name":"Later","registered":false,"recordUri":"path","recordPort":"text","resources":{"things":{}}}]})";

/// What a command line that ends by itself prints.
std::string outputOf(const std::string& commandLine) {
    Process process(commandLine);
    process.closeInput();
    process.exitCode();
    return process.out() + process.err();
}

class ProgramsTest : public testing::Test {
protected:
    void startPlatform(const std::string& description = DESCRIPTION) {
        platform = std::make_unique<Process>("exec zol-platform --json --control-port 0 -c /dev/stdin <<< '" +
                                             description + "'");
        const std::string mark = R"("endpoint":"control","what":"started","text":"127.0.0.1:)";
        ASSERT_TRUE(platform->prints(mark));
        ASSERT_TRUE(platform->prints("\n"));
        control = std::to_string(std::stoi(platform->out().substr(platform->out().find(mark) + mark.size())));
    }
    /// A request to the control interface. @return the whole answer
    std::string ask(const std::string& method, const std::string& path) const {
        const std::string request = method + " " + path + " HTTP/1.0\\r\\n\\r\\n";
        return outputOf("exec 3<>/dev/tcp/127.0.0.1/" + control + "; printf '" + request + "' >&3; cat <&3");
    }
    void act(const std::string& path) const { EXPECT_THAT(ask("POST", path), HasSubstr(" 200 OK")) << path; }

    std::unique_ptr<Process> platform;
    std::string control;  // its port
};

TEST_F(ProgramsTest, DoWhatTheirArgumentsSay) {
    startPlatform();
    const std::string first =
        R"({"album":{"uri":"/Media/albums/a1"},"name":"0xa","title":"First","uri":"/Media/tracks/0xa"})";
    const std::string second = R"({"name":"0xb","title":"Second","uri":"/Media/tracks/0xb"})";
    const std::string expanded =
        R"({"album":{"name":"a1","title":"Album","uri":"/Media/albums/a1"},"uri":"/Media/tracks/0xa"})";
    const struct {
        const char* commandLine;
        int exitCode;
        std::string out;  // its beginning; empty: nothing comes
        const char* err;  // a part
    } table[] = {
        {"zolctl get http://127.0.0.1:4480/Media/tracks", 0, "[" + first + "," + second + "]\n", ""},
        {"zolctl get Media/tracks --filter title=Second", 0, "[" + second + "]\n", ""},
        {"zolctl get /Media/tracks/0xa --fields=album --expand=1", 0, expanded, ""},
        {"zolctl get /Media/tracks/none", 1, "", "404 Not Found: nothing at /Media/tracks/none"},
        {"zolctl get /Nobody/here", 1, "", "404 Not Found: no service Nobody is registered"},
        {"zolctl find /Media/tracks 0xb", 0, second, ""},
        {"zolctl find /Media/tracks 'no & such'", 1, "", "no \"no & such\" in /Media/tracks"},
        {R"(zolctl post /Media/tracks - <<< '{"name":"0xc"}')", 0, R"({"name":"0xc","uri":)", ""},
        {R"(zolctl put /Media/tracks/0xc '{"title":"New"}')", 0, R"({"name":"0xc","title":"New",)", ""},
        {"zolctl delete /Media/tracks/0xc", 0, "{}\n", ""},
        {"zolctl put /Media/tracks/0xb '{title}'", 2, "", "no JSON"},
        {"zolctl watch /Media/tracks/0xb --count 1", 0, "{\"time\":\"20", ""},
        {"zolctl watch /Media/tracks/0xb --count 2 --timeout 0.2", 1, "{", "only 1 of 2"},
        {"set -o pipefail; zolctl watch /Media/clock | head -n 1", 1, "{", "nobody reads the output"},
        {"zolctl wait Media Later --timeout 0.2", 1, "", "still not available: Later"},
        {"zolctl wait My-Media", 2, "", "is no name of a service"},
        {"zolctl bench /Media/tracks/0xa --count 20", 0, "notifications a second\t", ""},
        {"zolctl get /Media/tracks/0xa", 0, first, ""},  // as before the bench
        {"zolctl bench /Media/tracks", 2, "", "is no element"},
        {"zolctl get /Media --count 1", 2, "", "Unknown option"},
        {"zolctl fetch", 2, "", "no command \"fetch\""},
        {"zolctl get /Media/tracks/0xb --log-level info", 0, second, "Info: sendRequest: GET"},
        {"zol-platform --nonsense", 2, "", "nonsense"},
        {"zol-platform --config /no/such/file", 2, "", "/no/such/file"},
        {"zol-platform --quiet --control-port 0", 2, "", "port 4480 of 127.0.0.1 is taken"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.commandLine);
        Process process(row.commandLine);
        process.closeInput();
        EXPECT_EQ(process.exitCode(), row.exitCode);
        EXPECT_EQ(process.out().substr(0, row.out.empty() ? std::string::npos : row.out.size()), row.out);
        EXPECT_THAT(process.err(), HasSubstr(row.err));
    }
}

TEST_F(ProgramsTest, WatchRecoversByItself) {
    startPlatform();
    Process watch("zolctl watch /Media/tracks/0xa Media/tracks");
    ASSERT_TRUE(watch.complains("Media is available"));
    ASSERT_TRUE(watch.prints(R"("path":"/Media/tracks/0xa","type":"data","data":{)"));
    for (const std::string fault :
         {"close", "drop", "reset", "broken", "restart", "move", "stop", "normal"}) {
        SCOPED_TRACE(fault);
        act("/services/Media/" + fault);
        if (fault == "stop") {
            ASSERT_TRUE(watch.complains("Media is not available, waiting for it"));
            act("/services/Media/start");
        }
        ASSERT_TRUE(fault == "normal" || watch.complains("available again"));
        outputOf(R"(zolctl put /Media/tracks/0xa '{"title":"after )" + fault + R"("}')");
        ASSERT_TRUE(watch.prints("\"title\":\"after " + fault));
    }
    for (const int signal : {SIGHUP, SIGUSR1, SIGUSR2}) {
        platform->signal(signal);
        ASSERT_TRUE(watch.complains("available again")) << signal;
    }
    outputOf("zolctl delete /Media/tracks/0xa");
    ASSERT_TRUE(watch.prints(R"("path":"/Media/tracks/0xa","type":"error","code":410})"));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.exitCode(), 130);
}

TEST_F(ProgramsTest, WaitAndServicesFollowTheRegistry) {
    Process early("zolctl wait Media Later");
    startPlatform();
    EXPECT_THAT(outputOf("zolctl services"), MatchesRegex("Media\t127.0.0.1:[0-9]+\thttp:[^\t]+/Media/\n"));
    Process watch("zolctl services --watch");
    ASSERT_TRUE(watch.prints("here\tMedia\t127.0.0.1:"));
    act("/services/Later/register");
    ASSERT_TRUE(watch.prints("here\tLater\t127.0.0.1:"));
    ASSERT_TRUE(watch.prints("\t/Later/\n"));
    EXPECT_EQ(early.exitCode(), 0);
    EXPECT_EQ(early.out() + early.err(), "");
    act("/services/Media/move");
    ASSERT_TRUE(watch.prints("moved\tMedia\t"));
    act("/registry/stop");
    ASSERT_TRUE(watch.complains("the registry is away"));
    act("/services/Media/withdraw");
    act("/registry/start");
    ASSERT_TRUE(watch.prints("gone\tMedia\t"));
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.exitCode(), 128 + SIGTERM);
}

TEST_F(ProgramsTest, AreInterruptedWhateverTheyDo) {
    startPlatform();
    act("/registry/silent");
    Process reading("zolctl get /Media --log-level info");
    ASSERT_TRUE(reading.complains("Info: "));
    reading.signal(SIGINT);
    EXPECT_EQ(reading.exitCode(), 130);
    Process connecting("zolctl watch /Media/tracks --log-level info");
    ASSERT_TRUE(connecting.complains("Info: "));
    connecting.readUntil([&] {  // the first one waits for the connection attempt, the second one does not
        connecting.signal(SIGINT);
        return false;
    });
    EXPECT_EQ(connecting.exitCode(), 130);
    platform->signal(SIGTERM);
    EXPECT_EQ(platform->exitCode(), 0);
    EXPECT_THAT(platform->out(), HasSubstr(R"("endpoint":"registry","what":"silent"})"));
}

TEST_F(ProgramsTest, ControlSaysWhatThereIsAndWhatIsWrong) {
    const Poco::Net::ServerSocket taken(Poco::Net::SocketAddress("127.0.0.1", 0));
    const std::string port = std::to_string(taken.address().port());
    EXPECT_THAT(outputOf("zol-platform --control-port " + port),
                HasSubstr("port " + port + " of 127.0.0.1 is taken"));
    startPlatform();
    EXPECT_THAT(ask("GET", "/"), AllOf(ContainsRegex("\"Later\",[^}]*\"registered\": false"),
                                       ContainsRegex("\"Media\",[^}]*\"registered\": true")));
    for (const char* path : {"/services/Nobody/stop", "/services/Media/explode", "/elsewhere"})
        EXPECT_THAT(ask("POST", path), HasSubstr(" 404 ")) << path;
    for (const char* path : {"/registry/move", "/registry/late?s=1"})
        EXPECT_THAT(ask("POST", path), HasSubstr(" 400 ")) << path;
    act("/services/late?ms=200");
    const auto start = std::chrono::steady_clock::now();
    outputOf("zolctl get /Media/tracks");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST_F(ProgramsTest, PlatformNamesWhatIsWrongInADescription) {
    const std::pair<std::string, std::string> table[] = {
        {"", ":1: a value is missing"},
        {"{\"services\": []\n\"more\": 1}", ":2: ',' or '}' is missing"},
        {"{\"services\": [],\n\"services\": []}", ":2: \"services\" is there twice"},
        {"{\"services\":\n\"none}", ":2: the text has no end"},
        {"{\"services\": [\n{\"nam\": \"M\"}]}", ":2: services[0].nam: is no member known here"},
        {R"({"services": [{"name": "a/b"}]})", ":1: services[0].name: \"a/b\" is no name"},
        {R"({"services": [{"name": "a-b"}]})", ":1: services[0].name: no client can follow"},
        {R"({"services": [{"name": "M"}, {"name": "M"}]})", ":1: services[1].name: there are two"},
        {R"({"services": [{"name": "M", "registered": 1}]})", ":1: services[0].registered: must be true or"},
        {R"({"services": [{"name": "M", "recordPort": "x"}]})", ":1: services[0].recordPort: must be \"num"},
        // Those of a value alone:
        {R"("$waltz": {})", "$waltz: is none of $counter, $walk, $sequence"},
        {R"("$counter": {"everyMs": 0})", "$counter.everyMs: must be"},
        {R"("$walk": {"everyMs": 1, "from": 5, "step": 1, "max": 4})", "$walk.from: must lie between"},
        {R"("$walk": {"everyMs": 1, "from": "5", "step": 1})", "$walk.from: must be a number"},
        {R"("$sequence": {"steps": [{"atMs": 5, "value": 1}]})", "$sequence.steps[0].atMs: must be 0"},
        {R"("$sequence": {"steps": [{"atMs": 0, "value": 1}, {"atMs": 0, "value": 1}]})",
         "$sequence.steps[1].atMs: must come after"},
    };
    for (auto [description, complaint] : table) {
        if (complaint[0] == '$') {
            description =
                R"({"services": [{"name": "M", "resources": {"r": {"e": {"v": {)" + description + "}}}}}]}";
            complaint = ":1: services[0].resources.r.e.v." + complaint;
        }
        Process process("printf %s '" + description + "' | zol-platform -c /dev/stdin");
        EXPECT_EQ(process.exitCode(), 2) << description;
        EXPECT_THAT(process.err(), HasSubstr("/dev/stdin" + complaint)) << description;
    }
}

TEST_F(ProgramsTest, ValuesChangeOverTime) {
    startPlatform(R"({"services":[{"name":"Show","resources":{"values":{"one":{
        "count":{"$counter":{"from":1,"to":3,"everyMs":20}},
        "walk":{"$walk":{"from":5,"step":2,"min":4,"max":6,"everyMs":30}},
        "state":{"$sequence":{"repeatMs":90,"steps":[{"atMs":0,"value":"a"},{"atMs":30,"value":"b"},
                                                     {"atMs":50,"value":7}]}},
        "fixed":{"$counter":"is one of several members","so":"this is data"}}}}}]})");
    const auto watched = outputOf("zolctl watch /Show/values/one --count 60");
    for (const char* wanted :
         {R"("count":1.*"count":2.*"count":3.*"count":1)", R"("walk":5\.[0-9])", R"("walk":4\.[0-9])",
          R"("state":"a".*"state":"b".*"state":7.*"state":"a")", R"("fixed":\{"\$counter":"is one)"})
        EXPECT_THAT(watched, ContainsRegex(wanted));
    EXPECT_THAT(watched, testing::Not(ContainsRegex(R"("(count":[^123]|walk":[^456]))")));
}

TEST_F(ProgramsTest, ShowColoursAndKeysOnATerminalOnly) {
    Process terminal(Process::inTerminal("zol-platform --control-port 0"));
    ASSERT_TRUE(terminal.prints("? lists them"));
    EXPECT_THAT(outputOf(Process::inTerminal("zolctl services")), HasSubstr("\033[1mSERVICE  ADDRESS"));
    terminal.write("?3egm0rq");
    for (const char* text : {"register: enters the registry", "chosen: Updates", "register: Updates",
                             "move is for services only", "restart: Climate Media Updates"})
        ASSERT_TRUE(terminal.prints(text));
    EXPECT_EQ(terminal.exitCode(), 0);
}

/// Whether a terminal shows it as it stands: lines of valid UTF-8 without control characters but tabs.
bool isHarmless(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    return Logging::escaped(text) == text;
}

TEST_F(ProgramsTest, ZolctlShowsNoControlCharactersOfAPeer) {
    const struct {
        const char* arguments;
        std::string status;
        std::string body;
        const char* shown;  // a part of what comes
    } table[] = {
        {"get /a", "404 Not Found", R"({"message":"\u001b]0;x\u0007\u009b1m\nforged"})",
         R"(\x1B]0;x\x07\xC2\x9B1m\nforged)"},
        {"get /a", "404 \x1B[31m\x9B", "", ""},
        {"get /a", "200 OK", "{\"data\":\"\x1B[31m\xFF", "no JSON object"},
        {"get /a", "200 OK", R"({"data":{"k\u001b":["\u009b\u007f\u00e9\ud83d\ude00"]}})",
         "{\"k\\u001B\":[\"\\u009B\\u007F\u00e9\U0001F600\"]}\n"},
        {"services", "200 OK", R"({"data":[{"name":"M\u001b[31m\tx\r\nN","port":"1\t","uri":"/\u009b"}]})",
         "M\\x1B[31m\\tx\\r\\nN\t127.0.0.1:1\\t\t/\\xC2\\x9B\n"},
    };
    for (const auto& [arguments, status, body, shown] : table) {
        const RawPeer registry({"HTTP/1.1 " + status + "\r\n\r\n" + body}, RawPeer::Then::Close, "127.0.0.1",
                               4480);
        const std::string command = std::string("zolctl ") + arguments;
        const std::string output = outputOf(command);
        EXPECT_THAT(output, HasSubstr(shown)) << command;
        EXPECT_PRED1(isHarmless, output) << command;
        EXPECT_PRED1(isHarmless, outputOf(command + " --log-level debug")) << command;
    }
}

TEST_F(ProgramsTest, PlatformShowsNoControlCharactersOfAClient) {
    for (const std::string style : {"", "--json"}) {
        Process shown("exec zol-platform --control-port 0 " + style);
        ASSERT_TRUE(shown.prints("control"));
        outputOf(
            R"(exec 3<>/dev/tcp/127.0.0.1/4480; printf 'GET /\x1b[31m\x9b\x7f HTTP/1.0\r\n\r\n' >&3; cat <&3)");
        ASSERT_TRUE(
            shown.prints(style.empty() ? R"(GET /\x1B[31m\x9B\x7F)" : R"(GET /\u001B[31m\\x9B\u007F)"));
        shown.signal(SIGTERM);
        EXPECT_EQ(shown.exitCode(), 0);
        EXPECT_PRED1(isHarmless, shown.out() + shown.err());
    }
    startPlatform();
    const std::string refused = ask("POST", "/services/%%1B%%C2%%9B/stop");
    EXPECT_THAT(refused, HasSubstr(R"("message": "no service \u001B\u009B")"));
}

TEST_F(ProgramsTest, CompletesInBash) {
    startPlatform();
    const std::pair<std::string, std::string> table[] = {
        {"zolctl w", "watch wait\n"},
        {"zolctl get --e", "--expand\n"},
        {"zolctl wait M", "Media\n"},
        {"zolctl watch /M", "/Media/\n"},
        {"zolctl put /Media/tracks/", "/Media/tracks/0xa /Media/tracks/0xb\n"},
    };
    for (const auto& [line, completions] : table) {
        EXPECT_EQ(outputOf("source " ZOL_SOURCE_DIR "/tools/completion/zolctl; COMP_WORDS=(" + line +
                           "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zolctl; echo ${COMPREPLY[@]}"),
                  completions);
    }
}

}  // namespace
