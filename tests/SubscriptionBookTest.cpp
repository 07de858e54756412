// Who subscribes to which resource, without a handler and without a client.

#include "SubscriptionBook.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>

namespace {

using namespace Nubo::Client;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;
using Uris = std::vector<std::string>;

struct SubscriptionBookTest : testing::Test {
    /// Enters the subscriber number `id` of a resource; 10 of them share one, if `resource` is not given.
    std::string add(unsigned id, const std::string& resource = "/M/t/") {
        const std::string uri = resource + "#" + std::to_string(id) + "-M-0xa";
        book.add(resource, uri, false);
        return uri;
    }
    Uris delivered(const std::string& event, const std::function<void(const std::string&)>& during = {}) {
        Uris all;
        SubscriptionBook::Round round(book, *book.findByEvent(event));
        while (const std::string* uri = round.next()) {
            all.push_back(*uri);
            if (during) during(all.back());
        }
        return all;
    }

    SubscriptionBook::Subscribers subscribers;
    SubscriptionBook::Values values;
    SubscriptionBook book{subscribers, values};
};

TEST_F(SubscriptionBookTest, KeepsTheTwoMaps) {
    const std::string first = "/M/a/#11-M", second = add(12, "/M/a/"), other = add(13, "/M/b/");
    book.remove(second);
    book.add("/M/a/", first, true);
    const std::string third = add(14, "/M/a/");
    EXPECT_THAT(subscribers,
                ElementsAre(std::pair(first, std::list{first, third}), std::pair(other, std::list{other})));
    EXPECT_EQ(first, values.at("/M/a/").subscrUri);
    EXPECT_TRUE(values.at("/M/a/").autosubscribe && !values.at("/M/b/").autosubscribe);
    auto* const a = book.findByRealUri("/M/a/");
    EXPECT_EQ(first, a->event());
    for (auto* found : {book.findByEvent(first), book.findBySubscriber(first), book.findBySubscriber(third)})
        EXPECT_EQ(a, found);

    a->sentOn = 1;  // and stays so, whoever comes and goes
    for (const auto& gone : {first, first, second, std::string("/M/a/#99-M")}) book.remove(gone);
    EXPECT_EQ(a, book.findByEvent(first));
    EXPECT_THAT(book.notSentOn(1), ElementsAre(book.findByEvent(other)));
    EXPECT_THAT(book.notSentOn(2), ElementsAre(a, book.findByEvent(other)));
    for (const auto& gone : {other, third}) book.remove(gone);
    EXPECT_TRUE(subscribers.empty() && values.empty());
    for (auto* found : {book.findByRealUri("/M/a/"), book.findByEvent(first), book.findBySubscriber(third)})
        EXPECT_EQ(nullptr, found);
}

TEST_F(SubscriptionBookTest, DeliversToThoseWhoWereThereAndStayed) {
    // Who is removed while whom is served, of three subscribers, and who is served then.
    const struct {
        int at;
        std::vector<int> removed, served;
    } table[] = {{0, {}, {0, 1, 2}},  {0, {0}, {0, 1, 2}}, {0, {1}, {0, 2}},         {0, {2}, {0, 1}},
                 {1, {2}, {0, 1}},    {1, {0}, {0, 1, 2}}, {0, {2, 1}, {0}},         {0, {1, 2}, {0}},
                 {0, {0, 1, 2}, {0}}, {2, {2}, {0, 1, 2}}, {2, {2, 1, 0}, {0, 1, 2}}};
    unsigned id = 10;
    for (const auto& row : table) {
        const Uris uris{add(++id), add(++id), add(++id)};
        Uris late;
        const auto change = [&](const std::string& served) {
            if (served != uris[static_cast<std::size_t>(row.at)]) return;
            for (const int i : row.removed) book.remove(uris[static_cast<std::size_t>(i)]);
            late.push_back(add(++id));  // hears nothing of this round
        };
        Uris expected;
        for (const int i : row.served) expected.push_back(uris[static_cast<std::size_t>(i)]);
        EXPECT_EQ(expected, delivered(uris[0], change)) << id;
        for (const Uris& all : {uris, late})
            for (const auto& uri : all) book.remove(uri);
        EXPECT_TRUE(subscribers.empty());
    }
}

TEST_F(SubscriptionBookTest, RoundsMayBeNested) {
    const Uris uris{add(11), add(12), add(13), add(14)};
    Uris inner;
    const auto nested = [&](const std::string& served) {
        if (served != uris[0]) return;
        inner = delivered(uris[0], [&](const std::string& uri) {
            if (uri == uris[1]) book.remove(uris[2]);
            if (uri == uris[3]) book.remove(uris[3]);
        });
    };
    EXPECT_THAT(delivered(uris[0], nested), ElementsAre(uris[0], uris[1]));
    EXPECT_THAT(inner, ElementsAre(uris[0], uris[1], uris[3]));
}

TEST_F(SubscriptionBookTest, RemembersWhoWasRemoved) {
    const std::string gone = add(12), stays = add(13);
    book.remove(gone);
    for (const auto& uri : {gone, std::string("http://h/M/t?a=%2C#12-M")})
        EXPECT_TRUE(book.wasRemoved(uri)) << uri;
    for (const auto& uri :
         {stays, std::string("/M/t/#14-M"), std::string("/M/t/#012-M"), std::string("/M/t/"),
          std::string("/M/t/#-12-M"), std::string("/M/t/#12x-M"), std::string("/M/t/#4294967308-M")})
        EXPECT_FALSE(book.wasRemoved(uri)) << uri;
}

TEST(IdRangesTest, KeepsRangesAndIsBounded) {
    IdRanges ids;
    for (const unsigned id : {20U, 22U, 21U, 18U, 19U, 20U, 4294967295U, 0U}) ids.insert(id);
    EXPECT_EQ(3U, ids.ranges());
    for (const unsigned id : {0U, 18U, 20U, 22U, 4294967295U}) EXPECT_TRUE(ids.contains(id)) << id;
    for (const unsigned id : {1U, 17U, 23U, 4294967294U}) EXPECT_FALSE(ids.contains(id)) << id;

    constexpr unsigned MANY = 5 * IdRanges::MAX_RANGES;
    for (unsigned id = 100; id < 100 + 2 * MANY; id += 2) ids.insert(id);
    EXPECT_EQ(std::size_t{IdRanges::MAX_RANGES}, ids.ranges());
    for (unsigned id = 100; id < 100 + 2 * MANY; id += 2) ASSERT_TRUE(ids.contains(id)) << id;
    EXPECT_FALSE(ids.contains(99 + 2 * MANY - 2));  // the newest gaps are still known
}

// Sixteen times as many take sixteen times as long, or some more with the caches; where all are searched for
// each, 256 times.
TEST_F(SubscriptionBookTest, TakesTimeInProportion) {
    const auto timed = [&](unsigned count, const std::function<void(const Uris&)>& work) {
        auto best = Clock::duration::max();
        for (int i = 0; i < 5; ++i) {
            Uris uris;
            for (unsigned id = 0; id < count; ++id) uris.push_back(add(id + 1));
            const auto begin = Clock::now();
            work(uris);
            best = std::min(best, Clock::now() - begin);
            for (const auto& uri : uris) book.remove(uri);
        }
        return best;
    };
    const std::pair<const char*, std::function<void(const Uris&)>> works[] = {
        {"removed last first",
         [&](const Uris& uris) {
             std::for_each(uris.rbegin(), uris.rend(), [&](auto& uri) { book.remove(uri); });
         }},
        {"found",
         [&](const Uris& uris) {
             for (const auto& uri : uris) ASSERT_TRUE(book.findBySubscriber(uri));
         }},
        {"delivered while one leaves",
         [&](const Uris& uris) { delivered(uris[0], [&](const auto&) { book.remove(uris[0]); }); }}};
    for (const auto& [name, work] : works) EXPECT_LT(timed(16000, work), 100 * timed(1000, work)) << name;
}

}  // namespace
