#include "Keys.h"

#include <unistd.h>

#include <iostream>

namespace ZolPlatform {

namespace {

constexpr char QUIT = 'q';
constexpr char REGISTRY = 'g';
constexpr char ALL_SERVICES = '0';

std::string namesOf(const Endpoints& endpoints) {
    std::string names;
    for (const auto* endpoint : endpoints) names += " " + endpoint->name();
    return names;
}

}  // namespace

Keys::Keys(Nubo::Simulator::Platform& platform) : _platform(platform), _chosen(allServices(platform)) {
    if (!inForeground() || ::tcgetattr(STDIN_FILENO, &_before) != 0) return;
    termios single = _before;
    single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    _active = ::tcsetattr(STDIN_FILENO, TCSANOW, &single) == 0;
    if (_active) std::cout << "Keys: ? lists them, q quits" << std::endl;
}

Keys::~Keys() {
    if (_active && inForeground()) ::tcsetattr(STDIN_FILENO, TCSANOW, &_before);
}

// Whoever touches the terminal from the background is stopped.
bool Keys::inForeground() const {
    return ::isatty(STDIN_FILENO) == 1 && ::tcgetpgrp(STDIN_FILENO) == ::getpgrp();
}

int Keys::descriptor() const {
    return _active && inForeground() ? STDIN_FILENO : -1;
}

bool Keys::handleOne() {
    char key = QUIT;
    if (::read(STDIN_FILENO, &key, 1) != 1 || key == QUIT) return false;
    if (const auto* action = findAction(key)) {
        if (perform(*action, _chosen))
            std::cout << action->name << ":" << namesOf(_chosen) << std::endl;
        else
            std::cout << action->name << " is for services only" << std::endl;
    } else {
        choose(key);
    }
    return true;
}

void Keys::choose(char key) {
    const auto services = allServices(_platform);
    const auto index = static_cast<std::size_t>(key - ALL_SERVICES);
    if (key == REGISTRY)
        _chosen = {&_platform.registry()};
    else if (key == ALL_SERVICES)
        _chosen = services;
    else if (key > ALL_SERVICES && index <= services.size())
        _chosen = {services[index - 1]};
    else
        return help();
    std::cout << "chosen:" << namesOf(_chosen) << std::endl;
}

void Keys::help() const {
    std::cout << "Choose what the keys are for:\n  " << REGISTRY << "  registry\n  " << ALL_SERVICES
              << "  all services\n";
    char key = ALL_SERVICES;
    for (const auto* service : _platform.services())
        std::cout << "  " << ++key << "  " << service->name() << "\n";
    std::cout << "and do it:\n";
    for (const auto& action : actions())
        std::cout << "  " << action.key << "  " << action.name << ": " << action.help << "\n";
    std::cout << "  " << QUIT << "  quit" << std::endl;
}

}  // namespace ZolPlatform
