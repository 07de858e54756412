#ifndef NUBO_CLIENT_QUERY_H
#define NUBO_CLIENT_QUERY_H

#include <Nubo/Export.h>

#include <string>
#include <vector>

namespace Nubo::Client {

/// Builds path and query of a request from raw values. Each is percent-encoded (RFC 3986, 2.1), so that it
/// arrives at the service as it was given, whatever is in it: "B & C", "C++", "50 %", "AC/DC".
///
///     const auto uri = Query("/Media/tracks").fields({"title", "album"}).filter("artist", "B & C").string();
///     // /Media/tracks?$fields=title,album&artist=B%20%26%20C
///     client.getResourceElement(uri);                   // also: sendRequest()
///     listener.addSubscription(uri, "", 0, "", false);  // also: SubscribingListener::subscribe()
///
/// The result is a whole URI already: where fields, an expansion or a filter can be given besides, none is.
/// (ClientLib::createQuery() joins texts as they are: for those that are encoded.)
///
/// A value, on any thread; throws std::bad_alloc only.
class ZOL_EXPORT Query {
public:
    /// @param path a service's, a resource's or an element's, as it stands in a URI: a name in it that may
    ///        hold other characters than letters and digits is put through encode(). A '/' in front is added.
    ///        A query that is there already stays, and what is built follows it; no fragment.
    explicit Query(const std::string& path);

    /// Asks for those members of each element only ("$fields"); further calls add to them. None: for all.
    Query& fields(const std::vector<std::string>& names);

    /// Asks for linked elements in their place, so many levels deep ("$expand"). 0: none. Services take up to
    /// 3 for an element, and none for a list.
    Query& expand(unsigned int levels);

    /// Asks for the elements of a list whose member `member` has that value. Further calls add conditions,
    /// all of which must hold. The name does not begin with '$', which services take for their own words.
    Query& filter(const std::string& member, const std::string& value);

    /// The URI: path, "$fields", "$expand", filters in the order of their calls.
    std::string string() const;

    /// `raw` for any place in a URI: everything but letters, digits and -._~ is encoded, '/' too.
    ///
    ///     client.findElementByName("/Media/tracks", Query::encode("B & C"));
    static std::string encode(const std::string& raw);

private:
    const std::string _path;
    std::string _fields;
    unsigned int _expand = 0;
    std::string _filters;
};

}  // namespace Nubo::Client

#endif
