// The steps of one notification's way, each by itself and warm, with Google Benchmark: where the time goes.

#include <Logging/LogLine.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Nubo/Util/JSONTools.h>
#include <Poco/JSON/Parser.h>
#include <Poco/NotificationQueue.h>
#include <benchmark/benchmark.h>

#include <array>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>

#include "Figures.h"
#include "FrameDecoder.h"
#include "ParsedPayload.h"
#include "UpdateClone.h"
#include "peer/Frames.h"

namespace {

using benchmark::State;
using Poco::JSON::Object;

constexpr int REPETITIONS = 5;

const std::string& notificationFrame() {
    static const std::string frame = frames::notification("/Media/tracks/0xa#12-Media-0xa");
    return frame;
}

std::string notificationText() {
    return notificationFrame().substr(notificationFrame().size() - frames::NOTIFICATION_BYTES);
}

Object::Ptr notificationObject() {
    return Poco::JSON::Parser().parse(notificationText()).extract<Object::Ptr>();
}

void logLine(State& state) {
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_WARNING);
    for (auto _ : state) {
        ZOL_LOG_INFO("never written: " << state.iterations());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(logLine);

void decode(State& state) {
    Nubo::Net::FrameDecoder decoder;
    for (auto _ : state) {
        const char* data = notificationFrame().data();
        decoder.next(data, data + notificationFrame().size());
        benchmark::DoNotOptimize(decoder.takeMessage());
    }
}
BENCHMARK(decode);

void split(State& state) {
    const Nubo::Net::WebsocketDataObjectSplitter splitter;
    const std::string text = notificationText();
    for (auto _ : state) {
        std::vector<std::string> objects;
        splitter.splitJsonDataObjectString(text, objects);
        benchmark::DoNotOptimize(objects);
    }
}
BENCHMARK(split);

/// With the split, the cleaning and the look at the members; and the release of what was made.
void parse(State& state) {
    const std::string text = notificationText();
    for (auto _ : state) benchmark::DoNotOptimize(Nubo::Client::parseBlock(text));
}
BENCHMARK(parse);

void plainParse(State& state) {
    const std::string text = notificationText();
    for (auto _ : state) benchmark::DoNotOptimize(Poco::JSON::Parser().parse(text));
}
BENCHMARK(plainParse);

void copy(State& state) {
    const Object::Ptr object = notificationObject();
    for (auto _ : state) benchmark::DoNotOptimize(Nubo::Util::JSONTools::cloneJsonObject(object));
}
BENCHMARK(copy);

void plainCopy(State& state) {
    const Object::Ptr object = notificationObject();
    for (auto _ : state) {
        std::ostringstream text;
        object->stringify(text);
        benchmark::DoNotOptimize(Poco::JSON::Parser().parse(text.str()));
    }
}
BENCHMARK(plainCopy);

/// As for a resource's next message, which differs from the last in one value.
void update(State& state) {
    const std::array<Object::Ptr, 2> objects{notificationObject(), notificationObject()};
    objects[1]->getObject("data")->set("duration", Poco::Int64(216));
    Object::Ptr clone;
    std::size_t next = 0;
    for (auto _ : state) {
        Nubo::Client::updateClone(clone, objects[next]);
        next = 1 - next;
        benchmark::DoNotOptimize(clone);
    }
}
BENCHMARK(update);

/// There and back between two threads that both wait each time: two hops, each with a wake-up.
void hop(State& state) {
    Poco::NotificationQueue there;
    Poco::NotificationQueue back;
    std::thread other([&] {
        for (;;) {
            Poco::AutoPtr<Poco::Notification> notification(there.waitDequeueNotification());
            if (notification->name() == "Stop") return;
            back.enqueueNotification(notification);
        }
    });
    struct Stop : Poco::Notification {
        std::string name() const override { return "Stop"; }
    };
    for (auto _ : state) {
        there.enqueueNotification(new Poco::Notification);
        Poco::AutoPtr<Poco::Notification> notification(back.waitDequeueNotification());
    }
    there.enqueueNotification(new Stop);
    other.join();
}
BENCHMARK(hop)->MeasureProcessCPUTime();

/// Keeps the processor time of every repetition, in nanoseconds an iteration.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration)
                _times[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
        }
    }
    const figures::Samples& of(const std::string& name) const { return _times.at(name); }

private:
    std::map<std::string, figures::Samples> _times;
};

}  // namespace

int main() try {
    std::string program = "bench-steps";
    std::string repetitions = "--benchmark_repetitions=" + std::to_string(REPETITIONS);
    std::string shortRuns = "--benchmark_min_time=0.1";
    char* arguments[] = {&program[0], &repetitions[0], &shortRuns[0]};
    int count = 3;
    benchmark::Initialize(&count, arguments);
    Collector times;
    benchmark::RunSpecifiedBenchmarks(&times);

    figures::limit("a log line of an inactive level", figures::median(times.of("logLine")), "ns", 2.0);
    figures::compare("step: deep copy", times.of("copy"), times.of("plainCopy"), "ns", {});
    figures::compare("step: update of the earlier copy", times.of("update"), times.of("plainCopy"), "ns", {});
    figures::compare("step: split, clean and parse", times.of("parse"), times.of("plainParse"), "ns", {});
    figures::show("step: decode a frame", times.of("decode"), "ns");
    figures::show("step: split", times.of("split"), "ns");
    figures::show("step: two hops between threads that wait", times.of("hop"), "ns");
    return 0;
} catch (const std::exception& e) {
    std::cerr << "steps: " << e.what() << std::endl;
    return 1;
}
