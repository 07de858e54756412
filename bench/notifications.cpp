// What one notification costs from the peer's write to the application's callback: processor time, rate,
// latency, further subscribers, many resources, memory. Floods and paced runs of the pipelines take turns, so
// that a change of the machine's speed meets them all.

#include <malloc.h>

#include <array>
#include <iostream>

#include <Nubo/ServiceRegistryConnection.h>

#include "Figures.h"
#include "PeerProcess.h"
#include "Pipeline.h"
#include "Usage.h"

namespace {

using figures::Samples;

constexpr std::size_t ROUNDS = 7;
constexpr std::size_t FLOOD = 20000;
constexpr std::size_t PACED_HZ = 1000;
constexpr std::size_t PACED = 2000;

/// What one pipeline's rounds have measured.
struct Measured {
    Samples cpu;     // microseconds of the process a notification
    Samples rate;    // notifications a second
    Samples median;  // of the latency, microseconds
    Samples tail;    // its 99th percentile
};

void flood(PeerProcess& peer, Pipeline& pipeline, Measured& measured) {
    const double cpu = usage::cpuMicroseconds();
    const double wall = usage::wallMicroseconds();
    peer.flood(pipeline.name(), FLOOD);
    pipeline.receive(FLOOD * pipeline.subscribers());
    measured.rate.push_back(FLOOD / (usage::wallMicroseconds() - wall) * 1e6);
    measured.cpu.push_back((usage::cpuMicroseconds() - cpu) / FLOOD);
}

void pace(PeerProcess& peer, Pipeline& pipeline, Measured& measured) {
    const double cpu = usage::cpuMicroseconds();
    pipeline.timeNotifications(true);
    peer.pace(pipeline.name(), PACED_HZ, PACED);
    pipeline.receive(PACED * pipeline.subscribers());
    pipeline.timeNotifications(false);
    const Samples latencies = pipeline.takeLatencies();
    measured.median.push_back(figures::median(latencies));
    measured.tail.push_back(figures::percentile(latencies, 0.99));
    measured.cpu.push_back((usage::cpuMicroseconds() - cpu) / PACED);
}

using Way = void (*)(PeerProcess&, Pipeline&, Measured&);

/// One round to warm up, then ROUNDS rounds in which the pipelines take turns.
template <std::size_t N>
std::array<Measured, N> takeTurns(PeerProcess& peer, const std::array<Pipeline*, N>& pipelines, Way way) {
    std::array<Measured, N> all;
    for (std::size_t round = 0; round <= ROUNDS; ++round) {
        for (std::size_t i = 0; i < N; ++i) {
            Measured warmUp;
            if (pipelines[i] != nullptr) way(peer, *pipelines[i], round == 0 ? warmUp : all[i]);
        }
    }
    return all;
}

void againstReferences(PeerProcess& peer) {
    const auto ours = makeLibraryPipeline();
    const auto plain = makePlainPipeline();
    const auto beast = makeBeastPipeline();
    for (Pipeline* pipeline : {ours.get(), plain.get(), beast.get()})
        if (pipeline != nullptr) pipeline->subscribe(1);

    const auto floods = takeTurns<3>(peer, {ours.get(), plain.get(), beast.get()}, flood);
    figures::compare("processor time a notification, flooded", floods[0].cpu, floods[1].cpu, "us", {0.6, {}});
    figures::compare("notifications a second", floods[0].rate, floods[1].rate, "/s", {{}, 2.0});
    if (beast) {
        figures::compare("the same on Boost: processor time", floods[0].cpu, floods[2].cpu, "us", {});
        figures::compare("the same on Boost: notifications a second", floods[0].rate, floods[2].rate, "/s",
                         {});
    }

    const auto paced = takeTurns<2>(peer, {ours.get(), plain.get()}, pace);
    figures::compare("latency at 1,000 a second, median", paced[0].median, paced[1].median, "us", {1.2, {}});
    figures::compare("latency, 99th percentile against our median", paced[0].tail, paced[0].median, "us",
                     {2.0, {}});
    figures::compare("processor time a notification at 1,000 a second", paced[0].cpu, paced[1].cpu, "us", {});
}

/// What one more subscriber adds: by ten more, as further listeners or as further subscriptions of one.
void furtherSubscribers(PeerProcess& peer) {
    constexpr std::size_t MORE = 10;
    const auto one = makeLibraryPipeline("One");
    const auto subscriptions = makeLibraryPipeline("Subscriptions", 1, 1 + MORE);
    const auto listeners = makeLibraryPipeline("Listeners", 1 + MORE, 1);
    for (Pipeline* pipeline : {one.get(), subscriptions.get(), listeners.get()}) pipeline->subscribe(1);
    const auto floods = takeTurns<3>(peer, {one.get(), subscriptions.get(), listeners.get()}, flood);
    const auto added = [&](const Measured& more) {
        return (figures::median(more.cpu) - figures::median(floods[0].cpu)) / MORE;
    };
    figures::limit("a further subscription adds", added(floods[1]), "us", 1.0);
    figures::limit("a further listener with a subscription adds", added(floods[2]), "us", 1.0);
}

void manyResources(PeerProcess& peer) {
    const auto few = makeLibraryPipeline("Few");
    const auto many = makeLibraryPipeline("Many");
    few->subscribe(10);
    many->subscribe(10000);
    const auto floods = takeTurns<2>(peer, {few.get(), many.get()}, flood);
    figures::compare("10,000 resources against 10, processor time", floods[1].cpu, floods[0].cpu, "us",
                     {1.15, {}});
}

void memoryLeft(PeerProcess& peer) {
    const auto ours = makeLibraryPipeline("Kept");
    ours->subscribe(1);
    Measured ignored;
    flood(peer, *ours, ignored);
    const auto before = ::mallinfo2().uordblks;
    for (std::size_t round = 0; round < ROUNDS; ++round) flood(peer, *ours, ignored);
    const auto left = static_cast<double>(::mallinfo2().uordblks) - static_cast<double>(before);
    figures::limit("bytes that a delivered notification leaves", left / (ROUNDS * FLOOD), "B", 0.5);
}

}  // namespace

int main(int argc, char** argv) try {
    PeerProcess peer(Nubo::ServiceRegistryConnection::PORT);
    const std::string only = argc > 1 ? argv[1] : "";
    if (only.empty() || only == "references") againstReferences(peer);
    if (only.empty() || only == "subscribers") furtherSubscribers(peer);
    if (only.empty() || only == "resources") manyResources(peer);
    if (only.empty() || only == "memory") memoryLeft(peer);
    return 0;
} catch (const std::exception& e) {
    std::cerr << "notifications: " << e.what() << std::endl;
    return 1;
}
