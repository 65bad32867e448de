// What a race could break: the first call of msgIdToProtoName, which builds its
// table, raced from several threads before anything else in the process; and
// every row converted, bridged and dumped from several threads at once,
// against the single-threaded result. Part of every test run, and the point
// of the ThreadSanitizer build (preset "tsan").

#include "../Support.h"

#include <QLoggingCategory>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace {

const int kThreads = std::getenv("VORLINK_STRESS_THREADS") ? std::atoi(std::getenv("VORLINK_STRESS_THREADS")) : 6;
thread_local QString lastLine;
std::vector<std::vector<const std::string *>> firstNames(kThreads, std::vector<const std::string *>(0x10000));

// Runs work(t) on threads of their own, released together.
template <class Work>
void together(Work work)
{
    std::atomic<bool> go{false};
    std::vector<std::thread> pool;
    for (int t = 0; t < kThreads; ++t)
        pool.emplace_back([&, t] {
            while (!go)
                std::this_thread::yield();
            work(t);
        });
    go = true;
    for (std::thread &th : pool)
        th.join();
}

// What a row gives for one input: the conversion, the record back from it, its dump line.
QString exercise(const rows::Row &row)
{
    const Bytra::Can::Message message{quint16(0x8000 + row.id), row.id, QByteArray(row.wireSize + 2, char(row.id))};
    QByteArray out, wire;
    zelko::canMessageToProtobufByteArray(QDateTime::fromMSecsSinceEpoch(1700000000123LL + row.id, Qt::UTC), message, out);
    row.fromProto(QByteArray(), out, wire, true);
    return QString::fromLatin1(out.toHex() + ' ' + wire.toHex() + ' ') + lastLine;
}

} // namespace

TEST(Concurrency, FirstCallOfMsgIdToProtoNameGivesEveryThreadTheSameNames)
{
    for (unsigned id = 0; id <= 0xFFFF; ++id)
        for (const auto &names : firstNames)
            ASSERT_EQ(names[id], &zelko::msgIdToProtoName(quint16(id))) << id;
}

TEST(Concurrency, EveryRowFromManyThreadsGivesTheSingleThreadedResult)
{
    std::vector<QString> expected;
    for (const rows::Row &row : rows::all())
        expected.push_back(exercise(row));
    std::atomic<int> wrong{0};
    together([&](int t) {
        for (size_t j = 0, n = expected.size(); j < n; ++j) {
            const size_t i = (j + size_t(t) * n / 7) % n; // each thread starts at another row
            wrong += exercise(rows::all()[i]) != expected[i];
        }
    });
    EXPECT_EQ(wrong.load(), 0);
}

int main(int argc, char **argv)
{
    // Dump lines are compared, whatever the machine's logging rules say.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=true"));
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &text) { lastLine = text; });
    together([](int t) {
        for (unsigned j = 0; j <= 0xFFFF; ++j)
            firstNames[size_t(t)][(j + unsigned(t) * 9973) & 0xFFFF] = &zelko::msgIdToProtoName(quint16(j + t * 9973));
    });
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
