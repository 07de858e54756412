#ifndef NUBO_COMMAND_QUERYPARAMETER_H
#define NUBO_COMMAND_QUERYPARAMETER_H

#include <Nubo/Export.h>
#include <Poco/URI.h>

#include <string>
#include <vector>

namespace Nubo::Command {

/// One `name=value` of a URI's query, decoded as Poco::URI::getQueryParameters() decodes ("+" is a blank). A
/// value; any thread.
class ZOL_EXPORT QueryParameter {
public:
    /// All parameters of `uri`'s query in their order, empty ones (`&&`) left out. A parameter without "="
    /// has an empty value. Does not throw, whatever the query is: see isValid().
    static std::vector<QueryParameter> parse(const Poco::URI& uri);

    /// Takes `name` and `value` as they stand in a query, still percent-encoded. Does not throw.
    QueryParameter(const std::string& name, const std::string& value);

    /// Name and value, decoded; one whose encoding is broken as it was given.
    const std::string& getName() const { return _name; }
    const std::string& getValue() const { return _value; }  ///< @copydoc getName()

    /// False when the percent-encoding is broken (RFC 3986, 2.1) or the name is empty.
    bool isValid() const { return _isValid; }

    /// Whether the parameter says how the answer shall be written: its name begins with "$".
    bool isRenderCriterion() const { return _name.compare(0, 1, "$") == 0; }

private:
    std::string _name;
    std::string _value;
    bool _isValid = false;
};

}  // namespace Nubo::Command

#endif
