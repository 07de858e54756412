// The library under measurement, used as an application uses it.

#include <Nubo/Client/ServiceListener.h>

#include <stdexcept>

#include "Application.h"
#include "Pipeline.h"

namespace {

using Nubo::Client::ClientLib;
using Nubo::Client::ServiceHandler;
using Nubo::Client::ServiceListener;

class LibraryPipeline : public Pipeline {
public:
    LibraryPipeline(std::string service, std::size_t listeners, std::size_t each)
        : _service(std::move(service)), _each(each), _lib(&_queue, usualParameters()) {
        _lib.startup();
        _lib.addService(new ServiceHandler(_service, &_lib, &_queue, PING_AFTER_MS, true));
        for (std::size_t i = 0; i < listeners; ++i) addListener(static_cast<std::uint16_t>(10 + i));
        if (!runUntil(
                _queue, [this] { return _listeners.back()->available; }, WAIT_MS))
            throw std::runtime_error("the service does not become available");
    }
    ~LibraryPipeline() override {
        for (auto& listener : _listeners) listener->shutdown();
        _lib.shutdown();
    }

    std::string name() const override { return _service; }
    std::size_t subscribers() const override { return _listeners.size() * _each; }

    // A further subscriber is served what the first one has got.
    void subscribe(std::size_t resources) override {
        for (std::size_t i = 0; i < resources * subscribers(); ++i) {
            auto& listener = *_listeners[i % _listeners.size()];
            listener.addSubscription(resourcePath(_service, i / subscribers()), "", 0, "", false);
            if (i % subscribers() == 0 && subscribers() > 1) receive(1);
        }
        receive(resources * (subscribers() > 1 ? subscribers() - 1 : 1));
    }

protected:
    bool runNext() override { return ::runNext(_queue, WAIT_MS); }

private:
    struct Listener : ServiceListener {
        Listener(LibraryPipeline& p, std::uint16_t id) : ServiceListener(&p._lib, id), pipeline(p) {}
        void HandleMicroServicesAvailable(bool isAvailable) override { available = isAvailable; }
        void HandleServiceHandlerNotification(
            const ServiceHandler::ServiceHandlerNotificationData_t& data) override {
            pipeline.received([&] { return stampOf(*data.container); });
        }
        LibraryPipeline& pipeline;
        bool available = false;
    };

    void addListener(std::uint16_t id) {
        auto& listener = *_listeners.emplace_back(std::make_unique<Listener>(*this, id));
        listener.addServiceToMonitor(_service, false);
        listener.startup();
    }

    const std::string _service;
    const std::size_t _each;
    Nubo::Client::MessageQueue _queue;
    ClientLib _lib;
    std::vector<std::unique_ptr<Listener>> _listeners;
};

}  // namespace

std::unique_ptr<Pipeline> makeLibraryPipeline(const std::string& service, std::size_t listeners,
                                              std::size_t each) {
    return std::make_unique<LibraryPipeline>(service, listeners, each);
}
