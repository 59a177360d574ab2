// Reactive values: delivery order of mutable properties, signals, producers, lifetimes.
#include "VellAudio/Reactive.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace vell {
namespace {

TEST(MutablePropertyTest, NewSubscriberGetsTheCurrentValueInsideTheCallThenLaterValues)
{
    MutableProperty<int> property(3);
    std::vector<int> seen;
    std::vector<int> later;
    Disposable subscription = property.observe([&](int value) { seen.push_back(value); });
    EXPECT_EQ(seen, std::vector<int>{3}); // before observe returned
    auto signalSubscription = property.signal().observe([&](int v) { later.push_back(v); });

    property.setValue(4);
    property.setValue(4); // every set is delivered, also an unchanged value
    property.setValue(5);
    EXPECT_EQ(seen, (std::vector<int>{3, 4, 4, 5}));
    EXPECT_EQ(later, (std::vector<int>{4, 4, 5})); // the signal delivers only later values
    EXPECT_EQ(property.value(), 5);

    subscription.dispose();
    EXPECT_TRUE(subscription.isDisposed());
    property.setValue(6);
    EXPECT_EQ(seen.size(), 4u);
}

TEST(MutablePropertyTest, ValueSetByAnObserverReachesEveryoneAfterTheValueInProgress)
{
    // The first observer clamps: it answers 15 with 10. The second observer must see 15 and then
    // 10, in that order, not 10 before 15 (which would leave it believing 15). Each value goes
    // to the subscribers in subscription order.
    MutableProperty<int> property(0);
    std::vector<std::string> log;
    auto clamp = property.signal().observe([&](int v) {
        log.push_back("first" + std::to_string(v));
        if (v > 10) {
            property.setValue(10);
        }
    });
    auto watcher =
        property.signal().observe([&](int v) { log.push_back("second" + std::to_string(v)); });

    property.setValue(15);
    EXPECT_EQ(log, (std::vector<std::string>{"first15", "second15", "first10", "second10"}));
    EXPECT_EQ(property.value(), 10);
}

TEST(MutablePropertyTest, ValueSetDuringTheInitialDeliveryReachesTheNewSubscriberToo)
{
    MutableProperty<int> property(1);
    std::vector<int> older;
    auto existing = property.observe([&](int v) { older.push_back(v); });
    std::vector<int> newer;
    auto subscription = property.observe([&](int v) {
        newer.push_back(v);
        if (v == 1) {
            property.setValue(2);
        }
    });
    EXPECT_EQ(newer, (std::vector<int>{1, 2}));
    EXPECT_EQ(older, (std::vector<int>{1, 2}));
}

TEST(MutablePropertyTest, ObserverMayDisposeItselfOrAnotherDuringDelivery)
{
    MutableProperty<int> property(0);
    std::vector<std::string> log;
    Disposable self;
    Disposable later;
    self = property.signal().observe([&](int v) {
        log.push_back("self" + std::to_string(v));
        self.dispose();
        later.dispose();
    });
    later = property.signal().observe([&](int v) { log.push_back("later" + std::to_string(v)); });
    property.setValue(1);
    property.setValue(2);
    EXPECT_EQ(log, std::vector<std::string>{"self1"});
}

TEST(MutablePropertyTest, DeliveryRunsOnTheSettingThreadAndSettersAreSerialised)
{
    // Each value names the thread that set it; every delivery must happen on that thread and
    // never overlap another.
    constexpr int kThreads = 4;
    constexpr int kSets = 500;
    static thread_local int tSetter = -1;
    MutableProperty<int> property(0);
    std::atomic<int> inside{0};
    std::atomic<int> faults{0};
    std::atomic<int> deliveries{0};
    auto subscription = property.signal().observe([&](int value) {
        if (inside.fetch_add(1) != 0 || value / kSets != tSetter) {
            ++faults;
        }
        ++deliveries;
        inside.fetch_sub(1);
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&property, t] {
            tSetter = t;
            for (int i = 0; i < kSets; ++i) {
                property.setValue(t * kSets + i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(faults.load(), 0);
    EXPECT_EQ(deliveries.load(), kThreads * kSets);
}

TEST(MutablePropertyTest, ProducerKeepsTheCellAliveAndEachStartBeginsWithTheValue)
{
    SignalProducer<int> producer;
    {
        MutableProperty<int> property(9);
        producer = property.producer();
    }
    std::vector<int> seen;
    auto first = producer.startWithValues([&](int v) { seen.push_back(v); });
    auto second = producer.startWithValues([&](int v) { seen.push_back(v * 10); });
    EXPECT_EQ(seen, (std::vector<int>{9, 90}));

    ConstantProperty<int> constant(4);
    constant.producer().startWithValues([&](int v) { seen.push_back(v); });
    constant.producer().startWithValues([&](int v) { seen.push_back(v); });
    EXPECT_EQ(seen, (std::vector<int>{9, 90, 4, 4}));
}

TEST(LifetimeTest, EndingTheTokenEndsSubscriptionsMadeForIt)
{
    MutableProperty<int> property(0);
    std::vector<int> seen;
    auto token = std::make_unique<Lifetime::Token>();
    Lifetime lifetime(*token);
    property.observe(lifetime, [&](int v) { seen.push_back(v); });
    auto [signal, input] = Signal<int>::pipe();
    input.send(0); // before anyone observes: lost
    signal.observe(lifetime, [&](int v) { seen.push_back(100 + v); });

    property.setValue(1);
    input.send(1);
    EXPECT_FALSE(lifetime.hasEnded());
    token.reset();
    EXPECT_TRUE(lifetime.hasEnded());
    property.setValue(2);
    input.send(2);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 101}));

    // Taking an ended lifetime starts nothing, not even the current value.
    property.observe(lifetime, [&](int v) { seen.push_back(v); });
    EXPECT_EQ(seen.size(), 3u);
}

TEST(LifetimeTest, EndRunsEveryLiveDisposableAndEndObserverOnce)
{
    auto [lifetime, token] = Lifetime::make();
    int ended = 0;
    int cancelledRuns = 0;
    lifetime.observeEnded([&] { ++ended; });
    Disposable cancelled = lifetime.observeEnded([&] { ++cancelledRuns; });
    cancelled.dispose();
    // Many short subscriptions: the lifetime may drop the ended ones, never the live ones.
    int disposed = 0;
    for (int i = 0; i < 200; ++i) {
        Disposable d([&] { ++disposed; });
        lifetime.add(d);
        if (i % 2 == 0) {
            d.dispose();
        }
    }
    EXPECT_EQ(disposed, 100);
    {
        Lifetime::Token gone = std::move(token);
    }
    EXPECT_EQ(disposed, 200);
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(cancelledRuns, 0);

    lifetime.observeEnded([&] { ++ended; }); // already ended: runs at once
    EXPECT_EQ(ended, 2);
}

TEST(DisposableTest, ScopedDisposableDisposesOnceOnDestructionAndMove)
{
    int runs = 0;
    {
        ScopedDisposable outer;
        {
            ScopedDisposable inner(Disposable([&] { ++runs; }));
            outer = std::move(inner);
        }
        EXPECT_EQ(runs, 0);
    }
    EXPECT_EQ(runs, 1);

    Disposable shared([&] { ++runs; });
    Disposable copy = shared;
    copy.dispose();
    shared.dispose();
    EXPECT_EQ(runs, 2);
    EXPECT_TRUE(Disposable().isDisposed());
}

TEST(SignalProducerTest, MapAndTakeCompose)
{
    auto [lifetime, token] = Lifetime::make();
    MutableProperty<int> property(2);
    std::vector<std::string> seen;
    property.producer()
        .map([](int v) { return std::to_string(v * v); })
        .take(lifetime)
        .startWithValues([&](const std::string& s) { seen.push_back(s); });
    property.setValue(3);
    {
        Lifetime::Token gone = std::move(token);
    }
    property.setValue(4);
    EXPECT_EQ(seen, (std::vector<std::string>{"4", "9"}));
}

TEST(SignalProducerTest, DisposingSilencesValuesTheWorkStillSends)
{
    // Work that ignores its stop: once disposed, its values must not reach the observer.
    std::function<void(const int&)> send;
    SignalProducer<int> stubborn([&](SignalProducer<int>::Observer observer) {
        send = observer;
        return Disposable([] {});
    });
    std::vector<int> seen;
    Disposable started = stubborn.startWithValues([&](int v) { seen.push_back(v); });
    send(1);
    started.dispose();
    send(2);
    EXPECT_EQ(seen, std::vector<int>{1});
    EXPECT_FALSE(SignalProducer<int>());
    EXPECT_TRUE(SignalProducer<int>().startWithValues([](int) {}).isDisposed());
}

} // namespace
} // namespace vell
