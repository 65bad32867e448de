// The dump lines and protobuf text that decode writes itself, against the
// record's own dump() (through the Qt logger) and protobuf's own text printer,
// over every row with random values and float bit patterns of every class.

#include "BusLog.h"
#include "Dictionary.h"
#include "DumpLine.h"
#include "ProtoText.h"

#include "ZelkoMsgProtoUtils.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include <gtest/gtest.h>

#include <QDateTime>
#include <QString>

#include <cmath>
#include <cstring>
#include <random>

namespace {

using namespace vorlink;

std::string logged;

void keepDebugLine(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtDebugMsg)
        logged = text.toStdString();
}

float floatOf(std::uint32_t bits)
{
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

std::uint32_t bitsOf(float f)
{
    std::uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

// Float bit patterns: both zeros and infinities, NaNs of both signs, the edges
// of the denormals and normals, every exponent, and values whose sixth digit
// is followed by an exact half (where rounding rules part: 1234565,
// 0.5078125), with random patterns around them.
std::vector<std::uint32_t> floatPatterns(std::mt19937 &random, std::size_t randomCount)
{
    std::vector<std::uint32_t> bits = {0x00000000, 0x80000000, 0x7F800000, 0xFF800000, 0x7FC00000, 0xFFC00000,
                                       0x7F800001, 0xFFFFFFFF, 0x00000001, 0x80000001, 0x007FFFFF, 0x00800000,
                                       0x7F7FFFFF, 0xFF7FFFFF, 0x3F800000, 0xBF800000};
    for (std::uint32_t exponent = 0; exponent < 256; ++exponent)
        for (int k = 0; k < 8; ++k)
            bits.push_back(exponent << 23 | (random() & 0x807FFFFF));
    for (int k = 0; k < 2000; ++k) {
        bits.push_back(bitsOf(float(1000000 + random() % 15000000) / 10 * 10 + 5));       // 7 and 8 digits, ...5
        bits.push_back(bitsOf(float(100000 + random() % 900000) + 0.5f));                   // 123456.5
        const int shift = 1 + int(random() % 30);
        bits.push_back(bitsOf(std::ldexp(float(random() % (1u << 20) | 1), -shift)));     // m / 2^k
    }
    for (std::size_t k = 0; k < randomCount; ++k)
        bits.push_back(std::uint32_t(random()));
    return bits;
}

TEST(DumpFloat, EveryClassOfBitPatternPrintsAsQtDoes)
{
    std::mt19937 random(7);
    int wrong = 0;
    for (const std::uint32_t bits : floatPatterns(random, 300000)) {
        const float value = floatOf(bits);
        std::string fast;
        appendDumpFloat(value, fast);
        const std::string qt = QStringLiteral("%1").arg(double(value), 0, 'g', -1).toStdString();
        if (fast != qt && ++wrong <= 10)
            ADD_FAILURE() << "bits 0x" << std::hex << bits << ": " << fast << ", Qt " << qt;
    }
    EXPECT_EQ(wrong, 0);
}

// A payload of the row's wire size with each field zero, at an edge of its
// type, a float pattern, or random.
QByteArray randomPayload(const RowInfo &row, std::mt19937 &random, const std::vector<std::uint32_t> &floats)
{
    QByteArray payload(row.wireSize, '\0');
    for (const WireField &field : row.fields) {
        if (field.position < 0)
            break;
        std::uint32_t bits = 0;
        switch (random() % 4) {
        case 0: break;
        case 1: bits = 0xFFFFFFFFu; break;
        case 2: bits = field.type == WireType::F32 ? floats[random() % floats.size()] : std::uint32_t(random() % 300); break;
        default: bits = std::uint32_t(random()); break;
        }
        std::memcpy(payload.data() + field.position, &bits, std::size_t(field.width));
    }
    return payload;
}

TEST(DumpLine, EveryRowWritesTheRecordsOwnDumpLine)
{
    std::mt19937 random(11);
    const std::vector<std::uint32_t> floats = floatPatterns(random, 1000);
    qInstallMessageHandler(keepDebugLine);
    for (const RowInfo &row : Dictionary::instance().rows()) {
        for (int k = 0; k < 40; ++k) {
            const QByteArray payload = randomPayload(row, random, floats);
            logged.clear();
            ASSERT_TRUE(row.dumpPayload(payload));
            std::string fast = "kept ahead ";
            appendDumpLine(row, payload.constData(), fast);
            ASSERT_EQ(fast, "kept ahead " + logged) << row.message;
        }
    }
    qInstallMessageHandler(nullptr);
}

std::string printed(const google::protobuf::Message &message)
{
    std::string text;
    google::protobuf::TextFormat::Printer().PrintToString(message, &text);
    return text;
}

TEST(ProtoText, EveryRowPrintsAsProtobufsPrinterPrintsTheLibrarysMessage)
{
    std::mt19937 random(13);
    const std::vector<std::uint32_t> floats = floatPatterns(random, 1000);
    qInstallMessageHandler(keepDebugLine);   // the union rows' notes
    for (const RowInfo &row : Dictionary::instance().rows()) {
        std::unique_ptr<google::protobuf::Message> parsed(row.prototype->New());
        for (int k = 0; k < 30; ++k) {
            BusLogEntry entry;
            entry.msgId = row.id;
            entry.sequence = quint16(k % 3 == 0 ? 0 : random());
            entry.payload = randomPayload(row, random, floats);
            // Whole seconds, whole milliseconds, and times before 1970.
            const qint64 msecs = qint64(random() % 4000000000000LL) - 1000000000000LL;
            entry.msecs = k % 5 == 0 ? 0 : k % 5 == 1 ? msecs / 1000 * 1000 : k % 5 == 2 ? msecs % 1000 : msecs;
            Bytra::Can::Message message;
            message.msgId = entry.msgId;
            message.sequence = entry.sequence;
            message.payload = entry.payload;
            QByteArray proto;
            ASSERT_TRUE(zelko::canMessageToProtobufByteArray(QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC),
                                                            message, proto));
            ASSERT_TRUE(parsed->ParseFromArray(proto.constData(), proto.size()));
            std::string fast = "kept ahead\n";
            appendProtoText(row, entry, fast);
            ASSERT_EQ(fast, "kept ahead\n" + printed(*parsed)) << row.message;
        }
    }
    qInstallMessageHandler(nullptr);
}

} // namespace
