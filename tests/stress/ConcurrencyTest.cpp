// Many threads on the library at once: every row converted, decoded, encoded,
// bridged and dumped from several threads with shared inputs, and the first
// call of msgIdToProtoName raced in fresh processes. Built into the ordinary
// test run and, with -DVORLINK_SANITIZE=thread, the ThreadSanitizer run.

#include "ZelkoMsgDefs.h"
#include "ZelkoMsgProtoUtils.h"
#include "ZelkoMsgRowList.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDateTime>
#include <QLoggingCategory>
#include <QString>
#include <QtGlobal>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

// ---------------------------------------------------------------------------
// Log capture. Each thread keeps the last line it logged, so a dump can be
// checked by the thread that wrote it; the counter catches lost lines.

thread_local QString lastLine;
std::atomic<long> linesLogged{0};

void captureLine(QtMsgType, const QMessageLogContext &, const QString &text)
{
    lastLine = text;
    linesLogged.fetch_add(1, std::memory_order_relaxed);
}

// The library's debug lines and the wire reader's warnings are on, over any
// logging rules of the machine or the environment.
QLoggingCategory::CategoryFilter previousFilter = nullptr;

void libraryLogOn(QLoggingCategory *category)
{
    if (previousFilter)
        previousFilter(category);
    if (qstrcmp(category->categoryName(), "default") == 0 || qstrcmp(category->categoryName(), "bytra.types") == 0) {
        category->setEnabled(QtDebugMsg, true);
        category->setEnabled(QtWarningMsg, true);
    }
}

void enableLibraryLog() { previousFilter = QLoggingCategory::installFilter(libraryLogOn); }

int envInt(const char *name, int fallback)
{
    const char *v = std::getenv(name);
    return v && *v ? std::atoi(v) : fallback;
}

// Runs work(t) for t in [0, threads) on threads of their own, released
// together once all have started so that their first calls overlap.
template <class Work>
void runTogether(int threads, Work work)
{
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            ready.fetch_add(1);
            while (!go.load(std::memory_order_acquire))
                std::this_thread::yield();
            work(t);
        });
    }
    while (ready.load() < threads)
        std::this_thread::yield();
    go.store(true, std::memory_order_release);
    for (std::thread &th : pool)
        th.join();
}

// ---------------------------------------------------------------------------
// One row of the dictionary, exercised through every public operation. The
// same function computes the single-threaded reference and the result each
// thread must reproduce.

struct RowResult
{
    bool converted = false;
    QByteArray protoBytes;   // canMessageToProtobufByteArray
    QByteArray wireBytes;    // fromQByteArray then toQByteArray
    QByteArray reserialized; // serializeProto of the record
    QByteArray roundTrip;    // deserializeProto of that, then toQByteArray
    QString dumpLine;
    QString idText;
    const std::string *protoName = nullptr;

    bool operator==(const RowResult &o) const
    {
        return converted == o.converted && protoBytes == o.protoBytes && wireBytes == o.wireBytes
               && reserialized == o.reserialized && roundTrip == o.roundTrip && dumpLine == o.dumpLine
               && idText == o.idText && protoName == o.protoName;
    }
};

struct RowInput
{
    Bytra::Can::Message message;
    QDateTime timestamp;
};

template <class Record>
RowResult exerciseRow(const RowInput &in)
{
    RowResult r;
    r.converted = zelko::canMessageToProtobufByteArray(in.timestamp, in.message, r.protoBytes);

    Record record;
    if (record.fromQByteArray(in.message.payload))
        record.toQByteArray(r.wireBytes);
    zelko::serializeProto(record, in.timestamp, short(in.message.sequence), in.message.msgId, r.reserialized);

    Record back;
    if (zelko::deserializeProto(r.reserialized, back))
        back.toQByteArray(r.roundTrip);

    record.dump();
    r.dumpLine = lastLine;
    r.idText = zelko::msgIdString(zelko::MsgId(in.message.msgId));
    r.protoName = &zelko::msgIdToProtoName(in.message.msgId);
    return r;
}

// Bytes the record itself reads and writes; for the union messages fewer
// than the payload size.
template <class Record>
int wireSizeOf()
{
    QByteArray bytes;
    Record().toQByteArray(bytes);
    return bytes.size();
}

struct RowCase
{
    quint16 id;
    RowResult (*exercise)(const RowInput &);
    int (*wireSize)();
};

template <class... Rows>
std::vector<RowCase> makeCases(std::tuple<Rows...> *)
{
    return {RowCase{quint16(Rows::id), &exerciseRow<typename Rows::Payload>, &wireSizeOf<typename Rows::Payload>}...};
}

const std::vector<RowCase> &allCases()
{
    static const std::vector<RowCase> cases = makeCases(static_cast<zelko::AllRows *>(nullptr));
    return cases;
}

// A payload per row that fills every field with bytes of its own, two bytes
// longer than the row's size so the left-over path runs too.
RowInput inputFor(quint16 id)
{
    RowInput in;
    in.message.msgId = id;
    in.message.sequence = quint16(0x8000u + id);
    const int size = int(zelko::payloadSize.value(zelko::MsgId(id), 0)) + 2;
    QByteArray payload(size, '\0');
    for (int k = 0; k < size; ++k)
        payload[k] = char((id * 31u + unsigned(k) * 7u + 1u) & 0xFFu);
    in.message.payload = payload;
    in.timestamp = QDateTime::fromMSecsSinceEpoch(1700000000123LL + id, Qt::UTC);
    return in;
}

// ---------------------------------------------------------------------------

class ConcurrencyTest : public ::testing::Test
{
protected:
    void SetUp() override { previous_ = qInstallMessageHandler(captureLine); }
    void TearDown() override { qInstallMessageHandler(previous_); }

private:
    QtMessageHandler previous_ = nullptr;
};

TEST_F(ConcurrencyTest, EveryRowFromManyThreadsMatchesTheSingleThreadedResult)
{
    const std::vector<RowCase> &cases = allCases();
    ASSERT_EQ(cases.size(), 474u);

    // Inputs shared by all threads: the messages, their payloads and the
    // time stamps are only read.
    std::vector<RowInput> inputs;
    std::vector<RowResult> expected;
    inputs.reserve(cases.size());
    for (const RowCase &c : cases)
        inputs.push_back(inputFor(c.id));
    for (std::size_t i = 0; i < cases.size(); ++i) {
        expected.push_back(cases[i].exercise(inputs[i]));
        const RowResult &e = expected.back();
        // The reference itself must be a working conversion, or the
        // comparison below proves nothing.
        ASSERT_TRUE(e.converted) << e.idText.toStdString();
        ASSERT_FALSE(e.protoBytes.isEmpty()) << e.idText.toStdString();
        ASSERT_EQ(e.reserialized, e.protoBytes) << e.idText.toStdString();
        ASSERT_FALSE(e.protoName->empty()) << e.idText.toStdString();
        ASSERT_FALSE(e.dumpLine.isEmpty()) << e.idText.toStdString();
    }

    const int threads = envInt("VORLINK_STRESS_THREADS", 6);
    const int rounds = envInt("VORLINK_STRESS_ROUNDS", 4);
    std::vector<std::vector<std::size_t>> mismatches(static_cast<std::size_t>(threads));
    const long linesBefore = linesLogged.load();

    runTogether(threads, [&](int t) {
        // Each thread starts at another row, so different rows and the same
        // rows overlap between threads.
        const std::size_t n = cases.size();
        for (int round = 0; round < rounds; ++round) {
            for (std::size_t j = 0; j < n; ++j) {
                const std::size_t i = (j + std::size_t(t) * n / std::size_t(threads)) % n;
                if (!(cases[i].exercise(inputs[i]) == expected[i]))
                    mismatches[std::size_t(t)].push_back(i);
            }
        }
    });

    for (int t = 0; t < threads; ++t) {
        for (std::size_t i : mismatches[std::size_t(t)])
            ADD_FAILURE() << "thread " << t << " differs on " << expected[i].idText.toStdString();
    }
    // One dump line per row and pass; the five union messages add a line for
    // each of their three bridge calls.
    const long perPass = long(cases.size()) + 5 * 3;
    EXPECT_EQ(linesLogged.load() - linesBefore, perPass * threads * rounds);
}

TEST_F(ConcurrencyTest, FailingInputsFromManyThreadsLeaveOutEmpty)
{
    // Unknown ids and short payloads take the failure paths, which log and
    // build the hexadecimal text of the buffer; all threads share one
    // message per case.
    std::vector<Bytra::Can::Message> bad;
    for (const RowCase &c : allCases()) {
        const int size = c.wireSize();
        if (size > 0) {
            Bytra::Can::Message m;
            m.msgId = c.id;
            m.payload = QByteArray(size - 1, '\x5A');
            bad.push_back(m);
        }
    }
    for (quint16 id : {quint16(0x0001), quint16(0x04A7), quint16(0xFFFE), quint16(0x1701)}) {
        Bytra::Can::Message m;
        m.msgId = id;
        m.payload = QByteArray(64, '\x01');
        bad.push_back(m);
    }
    ASSERT_GT(bad.size(), 300u);

    const QDateTime when = QDateTime::fromMSecsSinceEpoch(-1500, Qt::UTC);
    const int threads = envInt("VORLINK_STRESS_THREADS", 6);
    std::atomic<int> wrong{0};
    runTogether(threads, [&](int) {
        QByteArray out;
        for (const Bytra::Can::Message &m : bad) {
            out = QByteArray("left over from before");
            if (zelko::canMessageToProtobufByteArray(when, m, out) || !out.isEmpty())
                wrong.fetch_add(1);
        }
    });
    EXPECT_EQ(wrong.load(), 0);
}

// ---------------------------------------------------------------------------
// The first call of msgIdToProtoName builds its table. That can only be
// raced once per process, so the test starts fresh copies of this program
// which do nothing but race it and check the answers.

std::string programPath;
constexpr const char raceFlag[] = "--race-first-call";

// Expected name from the enumerator's text: MSG_ID_TD_EVENT -> TdEvent.
std::string expectedProtoName(quint16 id)
{
    const QString text = zelko::msgIdString(zelko::MsgId(id));
    if (!text.startsWith(QLatin1String("MSG_ID_")))
        return std::string();
    QString message;
    for (const QString &word : text.mid(7).split(QLatin1Char('_')))
        message += word.left(1).toUpper() + word.mid(1).toLower();
    return "zelko.messages." + message.toStdString();
}

int raceFirstCall()
{
    qInstallMessageHandler(captureLine);
    std::vector<quint16> ids;
    for (const RowCase &c : allCases())
        ids.push_back(c.id);
    ids.push_back(0x0001); // no row

    const int threads = envInt("VORLINK_STRESS_THREADS", 6);
    // first[t][i]: the reference thread t got for ids[i].
    std::vector<std::vector<const std::string *>> first(std::size_t(threads),
                                                        std::vector<const std::string *>(ids.size()));
    runTogether(threads, [&](int t) {
        // Every thread's first call lands on another id.
        for (std::size_t j = 0; j < ids.size(); ++j) {
            const std::size_t i = (j + std::size_t(t) * 79u) % ids.size();
            first[std::size_t(t)][i] = &zelko::msgIdToProtoName(ids[i]);
        }
    });

    int errors = 0;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::string want = expectedProtoName(ids[i]);
        for (int t = 0; t < threads; ++t) {
            const std::string *got = first[std::size_t(t)][i];
            if (got != first[0][i] || *got != want) {
                std::fprintf(stderr, "id 0x%04x, thread %d: got \"%s\", want \"%s\"\n", ids[i], t, got->c_str(),
                             want.c_str());
                ++errors;
            }
        }
    }
    return errors == 0 ? 0 : 1;
}

TEST(FirstCallRace, FreshProcessesAgreeOnEveryName)
{
    ASSERT_FALSE(programPath.empty());
    const int runs = envInt("VORLINK_STRESS_PROCESSES", 8);
    for (int run = 0; run < runs; ++run) {
        char *argv[] = {const_cast<char *>(programPath.c_str()), const_cast<char *>(raceFlag), nullptr};
        pid_t pid = 0;
        ASSERT_EQ(posix_spawn(&pid, programPath.c_str(), nullptr, nullptr, argv, environ), 0);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status)) << "run " << run << " died by signal " << WTERMSIG(status);
        ASSERT_EQ(WEXITSTATUS(status), 0) << "run " << run << " (a sanitizer report exits non-zero too)";
    }
}

} // namespace

int main(int argc, char **argv)
{
    // The dump and warning lines are compared and counted, so they must be
    // made whatever the machine's logging configuration says.
    enableLibraryLog();
    // No call into the library may come before this branch: the child's
    // first call of msgIdToProtoName is the one being raced.
    if (argc == 2 && std::strcmp(argv[1], raceFlag) == 0)
        return raceFirstCall();
    programPath = "/proc/self/exe";
    char resolved[4096];
    const ssize_t n = readlink("/proc/self/exe", resolved, sizeof(resolved) - 1);
    if (n > 0) {
        resolved[n] = '\0';
        programPath = resolved;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
