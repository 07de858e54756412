#include <Nubo/Command/RequestBase.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <string>
#include <system_error>

namespace Nubo::Command {
namespace {

unsigned int parseLevel(const std::string& text) {
    unsigned int level = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, level);
    if (result.ptr != end) return 0;
    return result.ec == std::errc::result_out_of_range ? std::numeric_limits<unsigned int>::max() : level;
}

}  // namespace

RequestBase::RequestBase(const Poco::URI& requestUri) : m_urlPath(requestUri) {
    for (const QueryParameter& parameter : QueryParameter::parse(requestUri)) {
        if (parameter.isRenderCriterion()) {
            renderCriteria.emplace_back(parameter);
        } else {
            searchCriteria.emplace_back(parameter);
        }
    }
}

unsigned int RequestBase::getExpansionLevel() const {
    const auto expand = std::find_if(
        renderCriteria.begin(), renderCriteria.end(),
        [](const RenderCriterion& criterion) { return criterion.getName() == RenderCriterion::EXPAND; });
    return expand == renderCriteria.end() ? 0 : parseLevel(expand->getValue());
}

}  // namespace Nubo::Command
