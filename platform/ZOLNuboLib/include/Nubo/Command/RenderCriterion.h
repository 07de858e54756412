#ifndef NUBO_COMMAND_RENDERCRITERION_H
#define NUBO_COMMAND_RENDERCRITERION_H

#include <Nubo/Command/QueryParameter.h>
#include <Nubo/Export.h>

#include <string>

namespace Nubo::Command {

/// A query parameter that says how the answer shall be written: `$fields=a,b`, `$expand=2`. A value; any
/// thread.
class ZOL_EXPORT RenderCriterion : public QueryParameter {
public:
    /// Name of the expansion level: linked elements in place, N levels deep.
    static const std::string EXPAND;

    explicit RenderCriterion(const QueryParameter& parameter);  ///< a copy, as a criterion
};

}  // namespace Nubo::Command

#endif
