#ifndef CLIENTLIB_SRC_EVENTFRAGMENT_H
#define CLIENTLIB_SRC_EVENTFRAGMENT_H

#include <string>

#include "UriText.h"

namespace Nubo::Client {

/// The parts of an event's fragment "id-service-tag"; both are empty when it has no dash. A tag may hold
/// dashes.
struct EventFragment {
    /// @throws Poco::SyntaxException when `uri` is no URI
    explicit EventFragment(const std::string& uri) : EventFragment(UriText(uri)) {}

    explicit EventFragment(const UriText& uri) {
        const std::string& fragment = uri.fragment();
        const auto dash = fragment.find('-');
        if (dash == std::string::npos) return;
        const auto nextDash = fragment.find('-', dash + 1);
        service = fragment.substr(dash + 1, nextDash == std::string::npos ? nextDash : nextDash - dash - 1);
        if (nextDash != std::string::npos) tag = fragment.substr(nextDash + 1);
    }

    std::string service;
    std::string tag;
};

}  // namespace Nubo::Client

#endif
