#ifndef ZOLPLATFORM_PRINTER_H
#define ZOLPLATFORM_PRINTER_H

#include <Nubo/Simulator/Happening.h>

#include <mutex>

namespace ZolPlatform {

/// Prints what happens on stdout, one line each, with what peers sent escaped (<Logging/Escaped.h>). Locks
/// itself.
class Printer {
public:
    enum class Style {
        Text,  ///< for people: local time, endpoint, what, the socket's number, details
        Json,  ///< for machines: an object with time (UTC), endpoint, what, socket, text
        Quiet  ///< nothing
    };

    explicit Printer(Style style) : _style(style) {}

    void print(const Nubo::Simulator::Happening_t& happening);

private:
    const Style _style;
    std::mutex _mutex;  // leaf; around stdout
};

}  // namespace ZolPlatform

#endif
