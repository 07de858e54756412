#ifndef ZOLPLATFORM_VALUESOURCE_H
#define ZOLPLATFORM_VALUESOURCE_H

#include <Poco/Dynamic/Var.h>

#include <chrono>
#include <memory>
#include <optional>

#include "Located.h"

namespace ZolPlatform {

/// Where the values of a member that changes over time come from.
class ValueSource {
public:
    struct Step_t {
        std::chrono::milliseconds wait;  ///< after the value before
        Poco::Dynamic::Var value;
    };

    /// Whether a member's value describes a source: an object whose one member begins with '$'.
    static bool isDescribedBy(const Located& value);
    /// @throws DescriptionError
    static std::unique_ptr<ValueSource> make(const Located& description);

    virtual ~ValueSource() = default;
    /// The value at the start.
    virtual Poco::Dynamic::Var first() const = 0;
    /// The one after the last; nothing when that stays.
    virtual std::optional<Step_t> next() = 0;
};

}  // namespace ZolPlatform

#endif
