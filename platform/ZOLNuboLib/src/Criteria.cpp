#include <Nubo/Command/RenderCriterion.h>
#include <Nubo/Command/SearchCriterion.h>

namespace Nubo::Command {

RenderCriterion::RenderCriterion(const QueryParameter& parameter) : QueryParameter(parameter) {}

SearchCriterion::SearchCriterion(const QueryParameter& parameter) : QueryParameter(parameter) {}

}  // namespace Nubo::Command
