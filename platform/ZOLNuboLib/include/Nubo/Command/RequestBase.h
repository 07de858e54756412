#ifndef NUBO_COMMAND_REQUESTBASE_H
#define NUBO_COMMAND_REQUESTBASE_H

#include <Nubo/Command/RenderCriterion.h>
#include <Nubo/Command/SearchCriterion.h>
#include <Nubo/Command/UrlPath.h>
#include <Nubo/Export.h>
#include <Poco/URI.h>

#include <vector>

namespace Nubo::Command {

/// The URI of a request taken apart: its path, and its query parameters, those that begin with "$" as render
/// criteria and the others as search criteria, each in the order of the query. A value; any thread; no
/// operation throws.
class ZOL_EXPORT RequestBase {
public:
    /// Takes the URI apart; none is refused, see UrlPath and QueryParameter.
    explicit RequestBase(const Poco::URI& requestUri);

    const UrlPath& getUrlPath() const { return m_urlPath; }                                   ///< its path
    const std::vector<RenderCriterion>& getRenderCriteria() const { return renderCriteria; }  ///< in order
    const std::vector<SearchCriterion>& getSearchCriteria() const { return searchCriteria; }  ///< in order

    /// The number of the first `$expand=`: how many levels of linked elements the answer shall hold. 0 when
    /// there is none or it is no unsigned decimal number; the greatest unsigned int when the number does not
    /// fit.
    unsigned int getExpansionLevel() const;

private:
    // Fixed after construction.
    UrlPath m_urlPath;
    std::vector<RenderCriterion> renderCriteria;
    std::vector<SearchCriterion> searchCriteria;
};

}  // namespace Nubo::Command

#endif
