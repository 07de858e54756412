// zol-platform and zolctl as people use them: as processes, by their options, signals, keys and output.
#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/StreamCopier.h>
#include <Poco/TemporaryFile.h>
#include <gmock/gmock.h>

#include <fstream>
#include <memory>
#include <regex>

#include "Process.h"

namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Words = std::vector<std::string>;

const char* const DESCRIPTION = R"({"services":[
  {"name":"Media","resources":{
    "albums":{"a1":{"title":"Album"}},
    "tracks":{"0xa":{"title":"First","album":{"uri":"/Media/albums/a1"}},"0xb":{"title":"Second"}}}},
  {"name":"Later","registered":false,"recordUri":"path","recordPort":"text","resources":{"things":{}}}]})";

class ProgramsTest : public testing::Test {
protected:
    /// @param description empty: the built-in one
    void startPlatform(const std::string& description = DESCRIPTION) {
        platform = std::make_unique<Process>(
            Words{"zol-platform", "--json", "--control-port", "0", "--config", fileOf(description)});
        ASSERT_TRUE(platform->prints(R"("endpoint":"control","what":"started","text":"127.0.0.1:)"));
        ASSERT_TRUE(platform->prints("\n"));
        const std::string& out = platform->out();
        control = static_cast<Poco::UInt16>(std::stoi(out.substr(out.rfind(':') + 1)));
    }

    std::string fileOf(const std::string& content) {
        std::ofstream(file.path()) << content;
        return file.path();
    }

    /// A request to the control interface. @return its status
    int ask(const std::string& method, const std::string& path, std::string* body = nullptr) const {
        Poco::Net::HTTPClientSession session("127.0.0.1", control);
        Poco::Net::HTTPRequest request(method, path, "HTTP/1.1");
        Poco::Net::HTTPResponse response;
        session.sendRequest(request);
        std::string ignored;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), body ? *body : ignored);
        return response.getStatus();
    }
    void act(const std::string& path) const { EXPECT_EQ(ask("POST", path), 200) << path; }

    struct Result_t {
        int exitCode;
        std::string out;
        std::string err;
    };
    static Result_t run(const Words& command, const std::string& input = "") {
        Process process(command);
        process.write(input);
        process.closeInput();
        const int code = process.exitCode();
        return {code, process.out(), process.err()};
    }
    static Result_t zolctl(Words arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), "zolctl");
        return run(arguments, input);
    }
    static void setTitle(const std::string& title) {
        EXPECT_EQ(zolctl({"put", "/Media/tracks/0xa", R"({"title":")" + title + R"("})"}).exitCode, 0);
    }

    Poco::TemporaryFile file;
    std::unique_ptr<Process> platform;
    Poco::UInt16 control = 0;
};

const char* const ANY = "any";

struct Call_t {
    Words arguments;
    std::string input;
    int exitCode;
    std::string out;  // the whole of it, or ANY
    std::string err;  // a part of it
};

TEST_F(ProgramsTest, ReadsAndChangesResources) {
    startPlatform();
    const std::string first =
        R"({"album":{"uri":"/Media/albums/a1"},"name":"0xa","title":"First","uri":"/Media/tracks/0xa"})";
    const std::string second = R"({"name":"0xb","title":"Second","uri":"/Media/tracks/0xb"})";
    const std::string third = R"({"name":"0xc","title":"Third","uri":"/Media/tracks/0xc"})";
    const std::string renamed = R"({"name":"0xb","title":"New","uri":"/Media/tracks/0xb"})";
    const std::vector<Call_t> calls = {
        {{"get", "/Media/tracks"}, "", 0, "[" + first + "," + second + "]\n", ""},
        {{"get", "Media/tracks/0xb"}, "", 0, second + "\n", ""},
        {{"get", "http://127.0.0.1:4480/Media/tracks/0xb"}, "", 0, second + "\n", ""},
        {{"get", "/Media/tracks", "--filter", "title=Second"}, "", 0, "[" + second + "]\n", ""},
        {{"get", "/Media/tracks/0xb", "--fields", "title"},
         "",
         0,
         R"({"title":"Second","uri":"/Media/tracks/0xb"})"
         "\n",
         ""},
        {{"get", "/Media/tracks/0xa", "--fields=album", "--expand=1"},
         "",
         0,
         R"({"album":{"name":"a1","title":"Album","uri":"/Media/albums/a1"},"uri":"/Media/tracks/0xa"})"
         "\n",
         ""},
        {{"get", "/Media/tracks/none"}, "", 1, "", "404 Not Found: nothing at /Media/tracks/none"},
        {{"get", "/Nobody/here"}, "", 1, "", "404 Not Found: no service Nobody is registered"},
        {{"find", "/Media/tracks", "0xb"}, "", 0, second + "\n", ""},
        {{"find", "/Media/tracks", "no & such"}, "", 1, "", "no \"no & such\" in /Media/tracks"},
        {{"post", "/Media/tracks", "-"}, R"({"name":"0xc","title":"Third"})", 0, third + "\n", ""},
        {{"put", "/Media/tracks/0xb", R"({"title":"New"})"}, "", 0, renamed + "\n", ""},
        {{"delete", "/Media/tracks/0xc"}, "", 0, "{}\n", ""},
        {{"delete", "/Media/tracks/0xc"}, "", 1, "", "404"},
        {{"put", "/Media/tracks/0xb", "{title}"}, "", 2, "", "no JSON"},
        {{"watch", "/Media/tracks/0xb", "--count", "1"}, "", 0, ANY, ""},
        {{"watch", "/Media/tracks/0xb", "--count", "2", "--timeout", "0.2"}, "", 1, ANY, "only 1 of 2"},
        {{"watch", "/Media/tracks/0xb", "--timeout", "0.2"}, "", 0, ANY, ""},
        {{"wait", "Media", "--timeout", "60"}, "", 0, "", ""},
        {{"wait", "Media", "Later", "--timeout", "0.2"}, "", 1, "", "still not available: Later"},
        {{"wait", "My-Media"}, "", 2, "", "is no name of a service"},
        {{"bench", "/Media/tracks"}, "", 2, "", "is no element"},
        {{"get"}, "", 2, "", "usage: zolctl get PATH"},
        {{"get", "/Media", "--count", "1"}, "", 2, "", "Unknown option"},
        {{"watch", "/Media/tracks", "--count", "none"}, "", 2, "", "count"},
        {{"fetch"}, "", 2, "", "no command \"fetch\""},
        {{}, "", 2, "", "a command is missing"},
        {{"get", "/Media/tracks/0xb", "--log-level", "info"},
         "",
         0,
         renamed + "\n",
         "Info: sendRequest: GET"},
    };
    for (const auto& call : calls) {
        SCOPED_TRACE(testing::PrintToString(call.arguments));
        const auto result = zolctl(call.arguments, call.input);
        EXPECT_EQ(result.exitCode, call.exitCode) << result.err;
        if (call.out != ANY) {
            EXPECT_EQ(result.out, call.out);
        }
        EXPECT_THAT(result.err, HasSubstr(call.err));
    }
}

TEST_F(ProgramsTest, SaysWhatTheyAre) {
    for (const std::string program : {"zolctl", "zol-platform"}) {
        EXPECT_THAT(run({program, "--version"}).out,
                    testing::MatchesRegex(program + " [0-9]+.[0-9]+.[0-9]+\n"));
        EXPECT_THAT(run({program, "--help"}).out, StartsWith("usage: " + program));
        EXPECT_EQ(run({program, "--nonsense"}).exitCode, 2);
    }
    EXPECT_THAT(run({"zolctl", "watch", "--help"}).out, HasSubstr("--timeout"));
}

TEST_F(ProgramsTest, WatchRecoversByItself) {
    startPlatform();
    Process watch({"zolctl", "watch", "/Media/tracks/0xa", "Media/tracks"});
    ASSERT_TRUE(watch.complains("Media is available"));
    ASSERT_TRUE(watch.prints(R"("path":"/Media/tracks","type":"data","data":[{)"));
    for (const std::string fault :
         {"close", "drop", "reset", "broken", "restart", "move", "stop", "normal"}) {
        SCOPED_TRACE(fault);
        act("/services/Media/" + fault);
        if (fault == "stop") {
            ASSERT_TRUE(watch.complains("Media is not available, waiting for it"));
            act("/services/Media/start");
        }
        if (fault != "normal") {
            ASSERT_TRUE(watch.complains("available again"));
        }
        setTitle("after " + fault);
        ASSERT_TRUE(watch.prints(R"("path":"/Media/tracks/0xa","type":"data")"));
        ASSERT_TRUE(watch.readUntil([&] { return watch.out().find("after " + fault) != std::string::npos; }));
    }
    zolctl({"delete", "/Media/tracks/0xa"});
    ASSERT_TRUE(watch.prints(R"("path":"/Media/tracks/0xa","type":"error","code":410})"));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.exitCode(), 130);
    const std::regex line(R"re(\{"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z","path":.*\})re");
    std::istringstream lines(watch.out());
    for (std::string text; std::getline(lines, text);) EXPECT_TRUE(std::regex_match(text, line)) << text;
}

TEST_F(ProgramsTest, WaitsForWhatIsNotThereYet) {
    Process early({"zolctl", "wait", "Media", "Later"});
    startPlatform();
    act("/services/Later/register");
    EXPECT_EQ(early.exitCode(), 0) << early.err();
    EXPECT_EQ(early.out() + early.err(), "");
}

TEST_F(ProgramsTest, ListsServicesAndFollowsThem) {
    startPlatform();
    EXPECT_THAT(zolctl({"services"}).out,
                testing::MatchesRegex("Media\t127.0.0.1:[0-9]+\thttp://127.0.0.1:[0-9]+/Media/\n"));
    Process watch({"zolctl", "services", "--watch"});
    ASSERT_TRUE(watch.prints("here\tMedia\t127.0.0.1:"));
    act("/services/Later/register");
    ASSERT_TRUE(watch.prints("here\tLater\t127.0.0.1:"));
    ASSERT_TRUE(watch.prints("\t/Later/\n"));
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

TEST_F(ProgramsTest, MeasuresNotifications) {
    startPlatform();
    const auto result = zolctl({"bench", "/Media/tracks/0xa", "--count", "20"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    std::smatch found;
    ASSERT_TRUE(std::regex_match(result.out, found, std::regex(R"re(notifications a second\t(\S+)
latency ms, least\t(\S+)
latency ms, median\t(\S+)
latency ms, 99 %\t\S+
latency ms, most\t(\S+)
)re"))) << result.out;
    EXPECT_GT(std::stod(found[1]), 0);
    EXPECT_GT(std::stod(found[2]), 0);
    EXPECT_LE(std::stod(found[2]), std::stod(found[3]));
    EXPECT_LE(std::stod(found[3]), std::stod(found[4]));
    EXPECT_THAT(zolctl({"get", "/Media/tracks/0xa"}).out, HasSubstr(R"("title":"First")"));
}

TEST_F(ProgramsTest, AreInterruptedWhateverTheyDo) {
    startPlatform();
    act("/registry/silent");
    Process reading({"zolctl", "get", "/Media", "--log-level", "info"});
    ASSERT_TRUE(reading.complains("Info: "));
    reading.signal(SIGINT);
    EXPECT_EQ(reading.exitCode(), 130);
    Process connecting({"zolctl", "watch", "/Media/tracks", "--log-level", "info"});
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

TEST_F(ProgramsTest, PlatformObeysSignals) {
    startPlatform();
    Process watch({"zolctl", "watch", "/Media/tracks/0xa"});
    ASSERT_TRUE(watch.prints("First"));
    for (const int signal : {SIGHUP, SIGUSR1, SIGUSR2}) {
        platform->signal(signal);
        if (signal != SIGUSR1) {
            ASSERT_TRUE(platform->prints(R"("endpoint":"Media","what":"started")"));
        }
        ASSERT_TRUE(watch.complains("available again")) << signal;
    }
}

TEST_F(ProgramsTest, ControlSaysWhatThereIsAndWhatIsWrong) {
    startPlatform();
    std::string body;
    EXPECT_EQ(ask("GET", "/", &body), 200);
    const auto state = Poco::JSON::Parser().parse(body).extract<Poco::JSON::Object::Ptr>();
    EXPECT_TRUE(state->getArray("services")->getObject(1)->getValue<bool>("registered"));
    EXPECT_FALSE(state->getArray("services")->getObject(0)->getValue<bool>("registered"));
    EXPECT_TRUE(state->getObject("actions")->has("restart"));
    EXPECT_EQ(ask("POST", "/services/Nobody/stop"), 404);
    EXPECT_EQ(ask("POST", "/services/Media/explode"), 404);
    EXPECT_EQ(ask("POST", "/elsewhere"), 404);
    EXPECT_EQ(ask("POST", "/registry/move"), 400);
    EXPECT_EQ(ask("POST", "/registry/late?s=1"), 400);
    act("/services/late?ms=200");
    const auto start = std::chrono::steady_clock::now();
    zolctl({"get", "/Media/tracks"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST_F(ProgramsTest, PlatformRefusesTakenPorts) {
    const Poco::Net::ServerSocket taken(Poco::Net::SocketAddress("127.0.0.1", 0));
    const std::string port = std::to_string(taken.address().port());
    const auto noControl = run({"zol-platform", "--quiet", "--control-port", port});
    EXPECT_EQ(noControl.exitCode, 2);
    EXPECT_THAT(noControl.err, HasSubstr("port " + port + " of 127.0.0.1 is taken"));
    EXPECT_EQ(noControl.out, "");
    startPlatform();
    const auto second = run({"zol-platform", "--control-port", "0"});
    EXPECT_EQ(second.exitCode, 2);
    EXPECT_THAT(second.err, HasSubstr("port 4480 of 127.0.0.1 is taken"));
}

TEST_F(ProgramsTest, PlatformNamesWhatIsWrongInADescription) {
    const auto inElement = [](const std::string& value) {
        return "{\"services\": [{\"name\": \"M\", \"resources\":\n{\"r\": {\"e\":\n{\"v\": " + value +
               "}}}}]}";
    };
    const std::string place = ":3: services[0].resources.r.e.v";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ":1: a value is missing"},
        {"{\n\"services\": [\n}", ":3: a value is missing"},
        {"{\"services\": []\n\"more\": 1}", ":2: ',' or '}' is missing"},
        {"{\"services\": [],\n\"services\": []}", ":2: \"services\" is there twice"},
        {"{\"services\": []} x", ":1: more text behind the end"},
        {"{\"services\":\n\"none}", ":2: the text has no end"},
        {"{\"services\":\nnone}", ":2: none is no value"},
        {"{\"services\": 1}", ":1: services: must be an array"},
        {"[]", ":1: must be an object"},
        {"{}", ":1: \"services\" is missing"},
        {"{\"services\": [\n{\"nam\": \"M\"}]}", ":2: services[0].nam: is no member known here"},
        {"{\"services\": [\n{}]}", ":2: services[0]: \"name\" is missing"},
        {"{\"services\": [{\"name\":\n1}]}", ":2: services[0].name: must be a text"},
        {R"({"services": [{"name": "a/b"}]})", ":1: services[0].name: \"a/b\" is no name"},
        {R"({"services": [{"name": "a-b"}]})", ":1: services[0].name: no client can follow"},
        {"{\"services\": [{\"name\": \"M\"},\n{\"name\": \"M\"}]}", ":2: services[1].name: there are two"},
        {R"({"services": [{"name": "M", "registered": 1}]})",
         ":1: services[0].registered: must be true or false"},
        {R"({"services": [{"name": "M", "recordPort": "x"}]})",
         ":1: services[0].recordPort: must be \"number\""},
        {R"({"services": [{"name": "M", "resources": {"": {}}}]})",
         ":1: services[0].resources.: \"\" is no name"},
        {inElement("{\"$waltz\": {}}"), place + ".$waltz: is none of $counter, $walk, $sequence"},
        {inElement("{\"$counter\": {}}"), place + ".$counter: \"everyMs\" is missing"},
        {inElement("{\"$counter\": {\"everyMs\":\n0}}"),
         ":4: services[0].resources.r.e.v.$counter.everyMs: must be"},
        {inElement("{\"$counter\": {\"everyMs\": 1, \"up\": 1}}"), place + ".$counter.up: is no member"},
        {inElement("{\"$walk\": {\"everyMs\": 1, \"from\": 5, \"step\": 1, \"max\": 4}}"),
         place + ".$walk.from: must lie between"},
        {inElement("{\"$walk\": {\"everyMs\": 1, \"from\": \"5\", \"step\": 1}}"),
         place + ".$walk.from: must be a number"},
        {inElement("{\"$sequence\": {\"steps\": []}}"), place + ".$sequence.steps: must have"},
        {inElement("{\"$sequence\": {\"steps\": [{\"atMs\": 5, \"value\": 1}]}}"),
         place + ".$sequence.steps[0].atMs: must be 0"},
        {inElement(
             "{\"$sequence\": {\"steps\": [{\"atMs\": 0, \"value\": 1}, {\"atMs\": 0, \"value\": 1}]}}"),
         place + ".$sequence.steps[1].atMs: must come after"},
    };
    for (const auto& [description, complaint] : cases) {
        const auto result = run({"zol-platform", "-c", fileOf(description)});
        EXPECT_EQ(result.exitCode, 2) << description;
        EXPECT_THAT(result.err, HasSubstr(file.path() + complaint)) << description;
    }
    EXPECT_EQ(run({"zol-platform", "--config", "/no/such/file"}).exitCode, 2);
}

TEST_F(ProgramsTest, ValuesChangeOverTime) {
    startPlatform(R"({"services":[{"name":"Show","resources":{"values":{"one":{
        "count":{"$counter":{"from":1,"to":3,"everyMs":20}},
        "walk":{"$walk":{"from":5,"step":2,"min":4,"max":6,"everyMs":30}},
        "state":{"$sequence":{"repeatMs":90,"steps":[{"atMs":0,"value":"a"},{"atMs":30,"value":"b"},
                                                     {"atMs":50,"value":7}]}},
        "fixed":{"$counter":"is one of several members","so":"this is data"}}}}}]})");
    const auto watched = zolctl({"watch", "/Show/values/one", "--count", "60"});
    ASSERT_EQ(watched.exitCode, 0) << watched.err;
    std::map<std::string, Words> changes;  // the values of each member, one after another
    std::istringstream lines(watched.out);
    for (std::string line; std::getline(lines, line);) {
        const auto data =
            Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>()->getObject("data");
        for (const auto& [name, value] : *data)
            if (changes[name].empty() || changes[name].back() != value.toString())
                changes[name].push_back(value.toString());
    }
    const auto follow = [&](const std::string& name, std::map<std::string, std::string> next) {
        ASSERT_GE(changes[name].size(), 4U) << name;
        for (std::size_t i = 1; i < changes[name].size(); ++i)
            EXPECT_EQ(changes[name][i], next[changes[name][i - 1]]) << name;
    };
    follow("count", {{"1", "2"}, {"2", "3"}, {"3", "1"}});
    follow("state", {{"a", "b"}, {"b", "7"}, {"7", "a"}});
    EXPECT_EQ(changes["fixed"].size(), 1U);
    EXPECT_GE(changes["walk"].size(), 4U);
    for (const auto& value : changes["walk"]) EXPECT_NEAR(std::stod(value), 5, 1);
}

// script(1) gives each program a terminal of its own.
TEST_F(ProgramsTest, ShowTablesColoursAndKeysOnATerminalOnly) {
    Process terminal({"script", "-qefc", Process::folder() + "/zol-platform --control-port 0", "/dev/null"});
    ASSERT_TRUE(terminal.prints("? lists them"));
    const auto table = run({"script", "-qec", Process::folder() + "/zolctl services", "/dev/null"});
    EXPECT_THAT(table.out, HasSubstr("\033[1mSERVICE  ADDRESS"));
    EXPECT_THAT(
        run({"script", "-qec", "NO_COLOR=1 " + Process::folder() + "/zolctl services", "/dev/null"}).out,
        testing::AllOf(StartsWith("SERVICE  ADDRESS"), testing::Not(HasSubstr("\033"))));
    EXPECT_THAT(run({"script", "-qec", Process::folder() + "/zolctl get /Media/albums", "/dev/null"}).out,
                HasSubstr("\n  {\r\n"));
    terminal.write("?");
    ASSERT_TRUE(terminal.prints("register: enters the registry"));
    terminal.write("3e");
    ASSERT_TRUE(terminal.prints("chosen: Updates"));
    ASSERT_TRUE(terminal.prints("register: Updates"));
    EXPECT_THAT(zolctl({"services"}).out, HasSubstr("Updates\t"));
    terminal.write("gm");
    ASSERT_TRUE(terminal.prints("move is for services only"));
    terminal.write("0rq");
    ASSERT_TRUE(terminal.prints("restart: Climate Media Updates"));
    EXPECT_EQ(terminal.exitCode(), 0);
}

TEST_F(ProgramsTest, CompletesInBash) {
    startPlatform();
    const auto complete = [](const std::string& line) {
        return run({"bash", "-c",
                    "PATH=" + Process::folder() +
                        ":$PATH; source " ZOL_SOURCE_DIR "/tools/completion/zolctl; "
                        "COMP_WORDS=(" +
                        line + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zolctl; echo \"${COMPREPLY[@]}\""})
            .out;
    };
    EXPECT_EQ(complete("zolctl w"), "watch wait\n");
    EXPECT_EQ(complete("zolctl get --e"), "--expand\n");
    EXPECT_EQ(complete("zolctl get / --log-level i"), "info\n");
    EXPECT_EQ(complete("zolctl wait M"), "Media\n");
    EXPECT_EQ(complete("zolctl watch /M"), "/Media/\n");
    EXPECT_EQ(complete("zolctl put /Media/t"), "/Media/tracks/\n");
    EXPECT_EQ(complete("zolctl put /Media/tracks/"), "/Media/tracks/0xa /Media/tracks/0xb\n");
}

TEST_F(ProgramsTest, EndWhenNobodyReadsThem) {
    startPlatform(R"({"services":[{"name":"Show","resources":{"values":{"one":{
        "count":{"$counter":{"everyMs":20}}}}}}]})");
    const auto piped = run(
        {"bash", "-c", "set -o pipefail; " + Process::folder() + "/zolctl watch /Show/values | head -n 1"});
    EXPECT_EQ(piped.exitCode, 1);
    EXPECT_THAT(piped.err, HasSubstr("nobody reads the output"));
}

}  // namespace
