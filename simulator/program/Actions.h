#ifndef ZOLPLATFORM_ACTIONS_H
#define ZOLPLATFORM_ACTIONS_H

#include <Nubo/Simulator/Platform.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace ZolPlatform {

/// Something that can be done to the registry or a service while the platform runs.
struct Action_t {
    enum class To { Any, Services };

    std::string name;  ///< in the control interface
    char key;          ///< in a terminal
    To to;
    std::string help;
    /// @param time as the control interface was given it, if it was
    void (*run)(Nubo::Simulator::Endpoint& endpoint, std::optional<std::chrono::milliseconds> time);
};

const std::vector<Action_t>& actions();
/// @return null when there is none
const Action_t* findAction(const std::string& name);
const Action_t* findAction(char key);

using Endpoints = std::vector<Nubo::Simulator::Endpoint*>;
Endpoints allServices(Nubo::Simulator::Platform& platform);

/// Does it to each. @return false when one of them is the registry and the action is for services only
bool perform(const Action_t& action, const Endpoints& endpoints,
             std::optional<std::chrono::milliseconds> time = std::nullopt);

}  // namespace ZolPlatform

#endif
