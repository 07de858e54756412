#ifndef NUBO_COMMAND_SEARCHCRITERION_H
#define NUBO_COMMAND_SEARCHCRITERION_H

#include <Nubo/Command/QueryParameter.h>
#include <Nubo/Export.h>

namespace Nubo::Command {

/// A query parameter that selects elements by a member: `name=X`. A value; any thread.
class ZOL_EXPORT SearchCriterion : public QueryParameter {
public:
    explicit SearchCriterion(const QueryParameter& parameter);  ///< a copy, as a criterion
};

}  // namespace Nubo::Command

#endif
