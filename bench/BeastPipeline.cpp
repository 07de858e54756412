// For orientation: the same job on Boost.Beast and Boost.JSON, all of it on the calling thread.

#include "Pipeline.h"

#ifdef BENCH_BOOST

#include <Nubo/ServiceRegistryConnection.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json.hpp>
#include <functional>
#include <string_view>
#include <unordered_map>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace json = boost::json;

const std::string SERVICE = "Beast";

std::string path(const json::object& notification) {
    const std::string_view event(notification.at("event").as_string());
    return std::string(event.substr(0, event.find('#')));
}

class BeastPipeline : public Pipeline {
public:
    BeastPipeline() : _socket(_context) {
        const asio::ip::tcp::endpoint peer(
            asio::ip::make_address(Nubo::ServiceRegistryConnection::ADDRESS),
            static_cast<unsigned short>(Nubo::ServiceRegistryConnection::PORT));
        _socket.next_layer().connect(peer);
        _socket.handshake("127.0.0.1", "/" + SERVICE);
    }
    ~BeastPipeline() override {
        beast::error_code ignored;
        _socket.close(beast::websocket::close_code::normal, ignored);
    }

    std::string name() const override { return SERVICE; }

    void subscribe(std::size_t resources) override {
        for (std::size_t i = 0; i < resources; ++i) {
            _subscribers[resourcePath(SERVICE, i)] = [this](const json::object& notification) {
                received([&] { return std::string(notification.at("data").at("stamp").as_string()); });
            };
            _socket.write(asio::buffer(subscription(SERVICE, i)));
        }
        receive(resources);
    }

protected:
    bool runNext() override {
        _buffer.clear();
        _socket.read(_buffer);
        const std::string_view text(static_cast<const char*>(_buffer.data().data()), _buffer.size());
        const json::value notification = json::parse(text);
        if (notification.at("type").as_string() != "data") return true;
        json::value copy(notification);
        const auto subscriber = _subscribers.find(path(notification.as_object()));
        if (subscriber == _subscribers.end()) return true;
        _current[subscriber->first] = std::move(copy);
        subscriber->second(notification.as_object());
        return true;
    }

private:
    asio::io_context _context;
    beast::websocket::stream<asio::ip::tcp::socket> _socket;
    beast::flat_buffer _buffer;
    std::unordered_map<std::string, std::function<void(const json::object&)>> _subscribers;
    std::unordered_map<std::string, json::value> _current;
};

}  // namespace

std::unique_ptr<Pipeline> makeBeastPipeline() {
    return std::make_unique<BeastPipeline>();
}

#else

std::unique_ptr<Pipeline> makeBeastPipeline() {
    return nullptr;
}

#endif
