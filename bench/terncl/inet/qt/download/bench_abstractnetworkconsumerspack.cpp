// Times the consumers pack at download-manager scale: one re-division tick, batch and single
// additions and removals, for 1 000, 10 000 and 100 000 items of which 10% use the network, and
// the heap each item costs. Run: bench_packs [repetitions]
#include <terncl/inet/qt/download/abstractnetworkconsumerspack.h>

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <malloc.h>
#include <random>
#include <vector>

namespace {

// The least a consumer can be: fixed speeds and one connection when it uses the network.
class BenchConsumer final : public AbstractNetworkConsumer {
public:
    BenchConsumer(qint64 id, bool usesNetwork, qint64 speed)
        : m_id(id)
        , m_speed(speed) {
        if (usesNetwork)
            m_connections.insert({QStringLiteral("example.org"), 443}, {1});
    }

    qint64 id() const override { return m_id; }
    void setNetworkSettings(const AbstractNetworkConsumerSettings&) override {}
    AbstractNetworkConsumerSettings networkSettings() const override { return {}; }
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override {
        m_usage = settings;
    }
    NetworkUsageSettings networkUsageSettings() const override { return m_usage; }
    const QtConnectionsMap& connectionsMap() const override { return m_connections; }
    qint64 speed(NetworkTrafficDirection direction, bool) const override {
        return direction == NetworkTrafficDirection::Download ? m_speed : 0;
    }
    AbstractError lastError() const override { return {}; }
    QList<QSslError> lastSslErrors() const override { return {}; }
    QtSslHost lastUnknownSslHost() const override { return {}; }
    QDateTime lastErrorTime() const override { return {}; }
    void clearLastError() override {}

    void setSpeed(qint64 speed) { m_speed = speed; }

private:
    qint64 m_id;
    qint64 m_speed;
    NetworkUsageSettings m_usage;
    QtConnectionsMap m_connections;
};

class BenchPack final : public AbstractNetworkConsumersPack {
public:
    qint64 id() const override { return 0; }
    using AbstractNetworkConsumersPack::applySettingsToRunningItems;
};

size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

volatile char evictionSink = 0;

// Walks a buffer larger than the last-level cache so that nothing of the pack stays cached.
void evictCaches() {
    static std::vector<char> buffer(size_t(128) << 20, 1);
    char sum = 0;
    for (size_t i = 0; i < buffer.size(); i += 64) {
        buffer[i] = char(buffer[i] + 1);
        sum = char(sum + buffer[i]);
    }
    evictionSink = sum;
}

double medianMicroseconds(std::vector<qint64> nanoseconds) {
    std::sort(nanoseconds.begin(), nanoseconds.end());
    return double(nanoseconds[nanoseconds.size() / 2]) / 1000.0;
}

template <typename Work> double timeMicroseconds(Work&& work) {
    QElapsedTimer timer;
    timer.start();
    work();
    return double(timer.nsecsElapsed()) / 1000.0;
}

void run(int itemCount, int repetitions) {
    const size_t heapBefore = heapInUse();
    QList<AbstractNetworkConsumersPack::ItemPtr> items;
    items.reserve(itemCount);
    QList<BenchConsumer*> active;
    for (int i = 0; i < itemCount; ++i) {
        const bool usesNetwork = i % 10 == 0;
        auto* consumer = new BenchConsumer(i + 1, usesNetwork, 500 + i % 1000);
        items.append(AbstractNetworkConsumersPack::ItemPtr(consumer));
        if (usesNetwork)
            active.append(consumer);
    }
    const size_t heapItems = heapInUse();
    // Created in order of id, as an application creates its downloads, but handed over in any
    // order, so that addItems has real sorting to do.
    std::shuffle(items.begin(), items.end(), std::mt19937_64(itemCount));

    BenchPack pack;
    const double addAll = timeMicroseconds([&] { pack.addItems(items); });
    const size_t heapPacked = heapInUse();

    // Steady tick: every item already holds its share. Changing tick: one item crosses the
    // threshold each time, so the divisor changes and every active item receives a new share.
    pack.setNetworkUsageSettings({10'000'000, 0, 100000, 0, false});
    std::vector<qint64> steady, changing;
    QElapsedTimer timer;
    for (int r = 0; r < repetitions; ++r) {
        timer.start();
        pack.applySettingsToRunningItems();
        steady.push_back(timer.nsecsElapsed());
    }
    for (int r = 0; r < repetitions; ++r) {
        active.first()->setSpeed(r % 2 ? 500 : 0);
        timer.start();
        pack.applySettingsToRunningItems();
        changing.push_back(timer.nsecsElapsed());
    }

    // Cold tick: the caches hold none of the items, as after the rest of the application ran for
    // a second. Every item then costs a trip to memory, whatever the size of the pack.
    std::vector<qint64> cold;
    for (int r = 0; r < repetitions; ++r) {
        evictCaches();
        timer.start();
        pack.applySettingsToRunningItems();
        cold.push_back(timer.nsecsElapsed());
    }

    // Single operations in the middle of the list, averaged.
    const int singles = 200;
    std::vector<qint64> removeIds;
    for (int i = 0; i < singles; ++i)
        removeIds.push_back(itemCount / 4 + i * (itemCount / (2 * singles)) + 1);
    QList<AbstractNetworkConsumersPack::ItemPtr> removedItems;
    for (qint64 id : removeIds)
        removedItems.append(pack.item(id));
    const double removeOne = timeMicroseconds([&] {
                                 for (qint64 id : removeIds)
                                     pack.removeItem(id);
                             }) /
                             double(removeIds.size());
    const double addOne = timeMicroseconds([&] {
                              for (const auto& item : std::as_const(removedItems))
                                  pack.addItem(item);
                          }) /
                          double(removedItems.size());

    const QList<qint64> allIds = pack.itemsIds();
    const double removeAll = timeMicroseconds([&] { pack.removeItems(allIds); });

    std::printf(
        "%7d items (%6lld active): tick %7.1f us steady, %7.1f us changing, %7.1f us cold | "
        "addItems %9.1f us | addItem %7.2f us | removeItem %7.2f us | removeItems all "
        "%9.1f us | heap/item: consumer %5.0f B + pack %5.0f B\n",
        itemCount, qlonglong(active.size()), medianMicroseconds(steady),
        medianMicroseconds(changing), medianMicroseconds(cold), addAll, addOne, removeOne,
        removeAll, double(heapItems - heapBefore) / itemCount,
        double(heapPacked - heapItems) / itemCount);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 101;
    for (int count : {1000, 10000, 100000})
        run(count, repetitions);
    return 0;
}
