#include "Printer.h"

#include <Logging/Escaped.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/JSON/Object.h>
#include <Poco/LocalDateTime.h>

#include <iomanip>
#include <iostream>
#include <sstream>

namespace ZolPlatform {

using Nubo::Simulator::Happening_t;
using Poco::DateTimeFormatter;

namespace {

constexpr int NAME_WIDTH = 9;
constexpr int WHAT_WIDTH = 12;

std::string asText(const Happening_t& happening) {
    std::ostringstream line;
    line << DateTimeFormatter::format(Poco::LocalDateTime(), "%H:%M:%S.%i") << "  " << std::left
         << std::setw(NAME_WIDTH) << happening.endpoint << " " << std::setw(WHAT_WIDTH) << happening.what;
    if (happening.socket != 0) line << " #" << happening.socket;
    if (!happening.text.empty()) line << " " << happening.text;
    return Logging::escaped(line.str());
}

std::string asJson(const Happening_t& happening) {
    Poco::JSON::Object object(Poco::JSON_PRESERVE_KEY_ORDER);
    object.set("time", DateTimeFormatter::format(Poco::Timestamp(), "%Y-%m-%dT%H:%M:%S.%iZ"));
    object.set("endpoint", happening.endpoint);
    object.set("what", happening.what);
    if (happening.socket != 0) object.set("socket", happening.socket);
    if (!happening.text.empty()) object.set("text", happening.text);
    std::ostringstream line;
    object.stringify(line);
    return Logging::escapedJson(line.str());
}

}  // namespace

void Printer::print(const Happening_t& happening) {
    if (_style == Style::Quiet) return;
    const std::string line = _style == Style::Json ? asJson(happening) : asText(happening);
    std::lock_guard<std::mutex> guard(_mutex);
    std::cout << line << std::endl;
}

}  // namespace ZolPlatform
