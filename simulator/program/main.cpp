// zol-platform: the simulated platform as a program.
#include <Logging/Escaped.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/StreamCopier.h>
#include <Poco/Util/Application.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/IntValidator.h>
#include <poll.h>

#include <array>
#include <functional>
#include <iostream>

#include "Control.h"
#include "Description.h"
#include "Keys.h"
#include "Printer.h"
#include "Schedule.h"
#include "Signals.h"

namespace ZolPlatform {

using namespace std::chrono_literals;
using Nubo::Simulator::Happening_t;
using Nubo::Simulator::Platform;
using Poco::Util::Option;
using Poco::Util::OptionCallback;

namespace {

constexpr int DONE = 0;
constexpr int UNABLE = 2;  // wrong usage, a wrong description, a port that is taken
constexpr int CONTROL_PORT = 4481;
constexpr int MAX_PORT = 65535;

std::vector<ServiceDescription_t> describedIn(const std::string& file) {
    if (file.empty()) return readDescription("the built-in example", example());
    std::string text;
    Poco::FileInputStream stream(file);
    Poco::StreamCopier::copyToString(stream, text);
    return readDescription(file, text);
}

void populate(Platform& platform, const std::vector<ServiceDescription_t>& descriptions, Schedule& schedule) {
    using Registration = Platform::Registration;
    for (const auto& description : descriptions) {
        auto& service = platform.addService(description.name, Registration::Later, description.form);
        for (const auto& resource : description.resources) service.addResource(resource);
        for (const auto& element : description.elements) {
            service.setElement(element.resource, element.id, element.json);
            schedule.add(service, element);
        }
        if (description.registered) service.registerService();
    }
}

/// What nobody looks at must not pile up.
void forgetRecords(Platform& platform) {
    platform.registry().clearRecord();
    for (auto* service : platform.services()) service->clearRecord();
}

/// Makes the changes that are due and obeys signals and keys, until one of them says stop.
void runUntilStopped(Platform& platform, Schedule& schedule, Signals& signals) {
    Keys keys(platform);
    for (bool goesOn = true; goesOn;) {
        std::array<pollfd, 2> waited = {pollfd{signals.descriptor(), POLLIN, 0},
                                        pollfd{keys.descriptor(), POLLIN, 0}};
        ::poll(waited.data(), waited.size(), static_cast<int>(schedule.untilNext(1s).count()));
        schedule.runDue();
        forgetRecords(platform);
        if (waited[0].revents != 0) goesOn = signals.handleOne(platform);
        if (waited[1].revents != 0) goesOn = keys.handleOne() && goesOn;
    }
}

/// The text may quote a description.
void complain(const std::string& text) {
    std::cerr << "zol-platform: " << Logging::escaped(text) << std::endl;
}

class Program : public Poco::Util::Application {
protected:
    void defineOptions(Poco::Util::OptionSet& options) override {
        options.addOption(Option("help", "h", "show this text").callback(on(&Program::showHelp)));
        options.addOption(Option("version", "", "show the version").callback(on(&Program::showVersion)));
        options.addOption(
            Option("example", "", "show the built-in description").callback(on(&Program::showExample)));
        options.addOption(
            Option("config", "c", "the JSON description to simulate; without it the built-in one")
                .argument("FILE")
                .binding("config"));
        options.addOption(
            Option("control-port", "",
                   "port of the control interface (" + std::to_string(CONTROL_PORT) + "); 0: a free one")
                .argument("N")
                .validator(new Poco::Util::IntValidator(0, MAX_PORT))
                .binding("control-port"));
        options.addOption(Option("json", "", "print what happens as JSON, an object a line")
                              .group("output")
                              .binding("json"));
        options.addOption(Option("quiet", "q", "print nothing").group("output").binding("quiet"));
    }

    int main(const ArgVec& arguments) override {
        if (_shown) return DONE;
        try {
            if (!arguments.empty()) throw Poco::InvalidArgumentException("what is " + arguments[0]);
            simulate();
            return DONE;
        } catch (const Poco::Exception& exception) {
            complain(exception.displayText());
        } catch (const std::exception& exception) {
            complain(exception.what());
        }
        return UNABLE;
    }

private:
    OptionCallback<Program> on(OptionCallback<Program>::Callback callback) { return {this, callback}; }

    Printer::Style style() const {
        if (config().has("quiet")) return Printer::Style::Quiet;
        return config().has("json") ? Printer::Style::Json : Printer::Style::Text;
    }

    void simulate() {
        const auto descriptions = describedIn(config().getString("config", ""));
        Signals signals;
        Printer printer(style());
        Platform platform(Nubo::ServiceRegistryConnection::PORT,
                          [&printer](const Happening_t& happening) { printer.print(happening); });
        Schedule schedule;
        populate(platform, descriptions, schedule);
        Control control(platform, static_cast<Poco::UInt16>(config().getInt("control-port", CONTROL_PORT)));
        printer.print({"control", "started", 0, control.address()});
        runUntilStopped(platform, schedule, signals);
    }

    void showHelp(const std::string&, const std::string&) {
        Poco::Util::HelpFormatter help(options());
        help.setCommand("zol-platform");
        help.setUsage("[OPTION...]");
        help.setHeader("A simulated service platform: the registry on port " +
                       std::to_string(Nubo::ServiceRegistryConnection::PORT) +
                       ", services as described, faults on demand.");
        help.setFooter(
            "SIGHUP restarts all services, SIGUSR1 drops their sockets, SIGUSR2 moves them. In a terminal "
            "single keys do that and more (? lists them), as does the control interface (GET / lists "
            "it).\nExit code: 0 ended by SIGINT, SIGTERM or the key q; 2 could not run.");
        help.setAutoIndent();
        help.format(std::cout);
        showedAll();
    }

    void showVersion(const std::string&, const std::string&) {
        std::cout << "zol-platform " ZOL_VERSION << std::endl;
        showedAll();
    }

    void showExample(const std::string&, const std::string&) {
        std::cout << example();
        showedAll();
    }

    void showedAll() {
        _shown = true;
        stopOptionsProcessing();
    }

    bool _shown = false;  // a text that was asked for, and that is all
};

}  // namespace

}  // namespace ZolPlatform

int main(int argc, char** argv) {
    ZolPlatform::Program program;
    try {
        program.init(argc, argv);
    } catch (const Poco::Exception& exception) {
        ZolPlatform::complain(exception.displayText() + " (zol-platform --help)");
        return ZolPlatform::UNABLE;
    }
    return program.run();
}
