#ifndef ZOLPLATFORM_DESCRIPTION_H
#define ZOLPLATFORM_DESCRIPTION_H

#include <Nubo/Simulator/Service.h>

#include <memory>
#include <string>
#include <vector>

#include "ValueSource.h"

namespace ZolPlatform {

/// A member of an element that changes over time.
struct ChangingMember_t {
    std::string name;
    std::shared_ptr<ValueSource> source;
};

struct ElementDescription_t {
    std::string resource;
    std::string id;
    std::string json;  ///< at the start
    std::vector<ChangingMember_t> changing;
};

struct ServiceDescription_t {
    std::string name;
    bool registered = true;
    Nubo::Simulator::RecordForm_t form;
    std::vector<std::string> resources;
    std::vector<ElementDescription_t> elements;
};

/// What a platform offers, as its JSON description says; see example() for the form:
///
///     {"services": [{"name": N, "registered": true, "recordUri": "full" | "path", "recordPort": "number" |
///     "text",
///                    "resources": {RESOURCE: {ELEMENT: {MEMBER: VALUE, ...}, ...}, ...}}, ...]}
///
/// A VALUE is any JSON, or a source of values over time: {"$counter": ...}, {"$walk": ...}, {"$sequence":
/// ...} (see ValueSource.cpp). A link to another element is an object with its "uri".
/// @param file for messages. @throws DescriptionError
std::vector<ServiceDescription_t> readDescription(const std::string& file, const std::string& text);

/// The description that is used when none is given.
const std::string& example();

}  // namespace ZolPlatform

#endif
