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
    Disposable subscription = property.observe([&](int value) { seen.push_back(value); });
    EXPECT_EQ(seen, std::vector<int>{3}); // before observe returned

    property.setValue(4);
    property.setValue(4); // every set is delivered, also an unchanged value
    property.setValue(5);
    EXPECT_EQ(seen, (std::vector<int>{3, 4, 4, 5}));
    EXPECT_EQ(property.value(), 5);

    subscription.dispose();
    EXPECT_TRUE(subscription.isDisposed());
    property.setValue(6);
    EXPECT_EQ(seen.size(), 4u);
}

TEST(MutablePropertyTest, SignalDeliversOnlyLaterValues)
{
    MutableProperty<std::string> property("a");
    std::vector<std::string> seen;
    auto subscription = property.signal().observe([&](const std::string& v) { seen.push_back(v); });
    EXPECT_TRUE(seen.empty());
    property.setValue("b");
    EXPECT_EQ(seen, std::vector<std::string>{"b"});
}

TEST(MutablePropertyTest, SubscribersAreCalledInSubscriptionOrder)
{
    MutableProperty<int> property(0);
    std::vector<std::string> order;
    auto first = property.observe([&](int v) { order.push_back("first" + std::to_string(v)); });
    auto second = property.observe([&](int v) { order.push_back("second" + std::to_string(v)); });
    order.clear();
    property.setValue(1);
    EXPECT_EQ(order, (std::vector<std::string>{"first1", "second1"}));
}

TEST(MutablePropertyTest, ValueSetByAnObserverReachesEveryoneAfterTheValueInProgress)
{
    // The first observer clamps: it answers 15 with 10. The second observer must see 15 and then
    // 10, in that order, not 10 before 15 (which would leave it believing 15).
    MutableProperty<int> property(0);
    std::vector<int> firstSaw;
    std::vector<int> secondSaw;
    auto clamp = property.observe([&](int v) {
        firstSaw.push_back(v);
        if (v > 10) {
            property.setValue(10);
        }
    });
    auto watcher = property.observe([&](int v) { secondSaw.push_back(v); });

    property.setValue(15);
    EXPECT_EQ(firstSaw, (std::vector<int>{0, 15, 10}));
    EXPECT_EQ(secondSaw, (std::vector<int>{0, 15, 10}));
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
    MutableProperty<int> property(0);
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> deliveries{0};
    std::thread::id lastThread;
    auto subscription = property.signal().observe([&](int) {
        if (inside.fetch_add(1) != 0) {
            overlapped = true;
        }
        lastThread = std::this_thread::get_id();
        ++deliveries;
        inside.fetch_sub(1);
    });

    std::thread::id setter;
    std::thread([&] {
        setter = std::this_thread::get_id();
        property.setValue(1);
    }).join();
    EXPECT_EQ(lastThread, setter);

    constexpr int kThreads = 4;
    constexpr int kSets = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kSets; ++i) {
                property.setValue(i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(overlapped.load());
    EXPECT_EQ(deliveries.load(), 1 + kThreads * kSets);
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
}

TEST(SignalTest, PipeDeliversToObserversPresentWhenSent)
{
    auto [signal, input] = Signal<int>::pipe();
    std::vector<int> seen;
    input.send(1);
    auto subscription = signal.observe([&](int v) { seen.push_back(v); });
    input.send(2);
    input.send(3);
    EXPECT_EQ(seen, (std::vector<int>{2, 3}));
}

TEST(LifetimeTest, EndingTheTokenEndsSubscriptionsMadeForIt)
{
    MutableProperty<int> property(0);
    std::vector<int> seen;
    auto token = std::make_unique<Lifetime::Token>();
    Lifetime lifetime(*token);
    property.observe(lifetime, [&](int v) { seen.push_back(v); });
    auto [signal, input] = Signal<int>::pipe();
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

TEST(LifetimeTest, ObserveEndedRunsOnceUnlessCancelled)
{
    auto [lifetime, token] = Lifetime::make();
    int ended = 0;
    int cancelledRuns = 0;
    lifetime.observeEnded([&] { ++ended; });
    Disposable cancelled = lifetime.observeEnded([&] { ++cancelledRuns; });
    cancelled.dispose();
    {
        Lifetime::Token gone = std::move(token);
    }
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(cancelledRuns, 0);

    lifetime.observeEnded([&] { ++ended; }); // already ended: runs at once
    EXPECT_EQ(ended, 2);
}

TEST(LifetimeTest, ManyShortSubscriptionsDoNotLoseTheLiveOnes)
{
    auto [lifetime, token] = Lifetime::make();
    int disposedAtEnd = 0;
    for (int i = 0; i < 200; ++i) {
        Disposable d([&] { ++disposedAtEnd; });
        lifetime.add(d);
        if (i % 2 == 0) {
            d.dispose(); // ended early; the lifetime may drop it
        }
    }
    EXPECT_EQ(disposedAtEnd, 100);
    {
        Lifetime::Token gone = std::move(token);
    }
    EXPECT_EQ(disposedAtEnd, 200);
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

TEST(ConstantPropertyTest, ProducerDeliversTheValueToEachStart)
{
    ConstantProperty<std::string> property("fixed");
    std::vector<std::string> seen;
    property.producer().startWithValues([&](const std::string& v) { seen.push_back(v); });
    property.producer().startWithValues([&](const std::string& v) { seen.push_back(v); });
    EXPECT_EQ(seen, (std::vector<std::string>{"fixed", "fixed"}));
    EXPECT_EQ(property.value(), "fixed");
}

} // namespace
} // namespace vell
