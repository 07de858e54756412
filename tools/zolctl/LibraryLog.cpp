#include "LibraryLog.h"

#include <Logging/Log.h>

#include <algorithm>
#include <iostream>

namespace ZolCtl {

namespace {

const std::string ERROR_LEVEL = "Error: ";

}  // namespace

LibraryLog* LibraryLog::_installed = nullptr;

void LibraryLog::install(int shown) {
    Poco::AutoPtr<Poco::Channel> channel(_installed = new LibraryLog(shown));
    Logging::Log::Logger().setChannel(channel);  // which keeps it to the end of the process
    Logging::Log::Logger().setLevel(std::max<int>(shown, Poco::Message::PRIO_ERROR));
}

std::string LibraryLog::lastError() {
    std::lock_guard<std::mutex> guard(_installed->_mutex);
    return _installed->_lastError;
}

void LibraryLog::log(const Poco::Message& message) {
    std::lock_guard<std::mutex> guard(_mutex);
    const std::string& text = message.getText();
    if (text.compare(0, ERROR_LEVEL.size(), ERROR_LEVEL) == 0) _lastError = text.substr(ERROR_LEVEL.size());
    if (message.getPriority() <= _shown) std::cerr << text << std::endl;
}

}  // namespace ZolCtl
