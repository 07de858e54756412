// Uses a platform library without the client library.
#include <Nubo/Command/UrlPath.h>
#include <Poco/URI.h>

int main() {
    return Nubo::Command::UrlPath(Poco::URI("/Media/tracks")).getService() == "Media" ? 0 : 1;
}
