#ifndef ZOLPLATFORM_LOCATED_H
#define ZOLPLATFORM_LOCATED_H

#include <Poco/Dynamic/Var.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ZolPlatform {

/// "FILE:LINE: MEMBER: what is wrong"
struct DescriptionError : std::runtime_error {
    using runtime_error::runtime_error;
};

/// A JSON value that knows where it stands, so that whoever reads it can say exactly what is wrong with it.
/// All operations but the constructor throw DescriptionError when the value is not what they say.
class Located {
public:
    using Members = std::vector<std::pair<std::string, Located>>;

    /// @param file for messages only. @throws DescriptionError when `text` is no JSON
    static Located parse(const std::string& file, const std::string& text);

    bool isObject() const { return _kind == Kind::Object; }
    const Members& members() const;
    const std::vector<Located>& items() const;
    /// A member of an object; null when there is none.
    const Located* find(const std::string& name) const;
    const Located& at(const std::string& name) const;
    /// Fails at the first member that is none of `known`.
    void allowOnly(const std::vector<std::string>& known) const;

    std::string text() const;
    bool flag() const;
    double number() const;
    /// A whole number of milliseconds, at least `least`.
    long milliseconds(long least) const;

    /// As JSON, whatever it is.
    const std::string& json() const { return _json; }
    Poco::Dynamic::Var value() const;

    [[noreturn]] void fail(const std::string& what) const;

private:
    friend class LocatedReader;
    enum class Kind { Object, Array, Scalar };

    Kind _kind = Kind::Scalar;
    std::string _place;  // "FILE:LINE: MEMBER: "
    std::string _json;
    Members _members;
    std::vector<Located> _items;
};

}  // namespace ZolPlatform

#endif
