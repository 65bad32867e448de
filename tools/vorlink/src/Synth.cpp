// vorlink synth: a deterministic bus log over every message of the dictionary.

#include "BusLog.h"
#include "Command.h"
#include "Dictionary.h"
#include "Io.h"

#include <google/protobuf/descriptor.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace vorlink {
namespace {

struct SynthOptions
{
    unsigned long long count = 1000;
    unsigned long long seed = 1;
    unsigned long long start = 1700000000;
};

// splitmix64: small, fast, and the same sequence on every platform.
class Random
{
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next()
    {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    std::uint32_t below(std::uint32_t bound) { return std::uint32_t(next() % bound); }

private:
    std::uint64_t state_;
};

void putLittleEndian(char *at, std::uint32_t value, int width)
{
    for (int k = 0; k < width; ++k)
        at[k] = char((value >> (8 * k)) & 0xFF);
}

// A plausible value for one field, as its wire bits.
std::uint32_t synthValue(const WireField &field, Random &random)
{
    using google::protobuf::FieldDescriptor;
    if (field.schemaField->cpp_type() == FieldDescriptor::CPPTYPE_BOOL)
        return random.below(2);
    const std::string &type = field.wireType;
    if (type == "U08")
        return random.below(256);
    if (type == "U16")
        return random.below(65536);
    if (type == "S16")
        return std::uint32_t(std::int32_t(random.below(65536)) - 32768);
    if (type == "U32") {
        switch (random.below(3)) {
        case 0: return random.below(100);
        case 1: return random.below(100000);
        default: return std::uint32_t(random.next());
        }
    }
    if (type == "S32")
        return random.below(2) ? std::uint32_t(std::int32_t(random.below(2001)) - 1000) : std::uint32_t(random.next());
    if (type == "F32") {
        const float value = random.below(8) == 0 ? 0.0f : float(std::int32_t(random.below(2000001)) - 1000000) / 100.0f;
        std::uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        return bits;
    }
    return std::uint32_t(random.next());
}

int runSynth(const CLI::App &command, const SynthOptions &options)
{
    const unsigned long long count = options.count, seed = options.seed, start = options.start;
    setVerbose(false);

    const Dictionary &dictionary = Dictionary::instance();
    const auto &rows = dictionary.rows();
    Random random(seed);
    std::vector<std::size_t> deck(rows.size());
    std::size_t dealt = deck.size();
    Writer out;
    out.append("# vorlink synth --count " + std::to_string(count) + " --seed " + std::to_string(seed) +
               " --start " + std::to_string(start) + "\n");

    BusLogEntry entry;
    entry.msecs = qint64(start) * 1000;
    std::uint32_t sequence = random.below(65536);
    for (unsigned long long n = 0; n < count && !out.failed(); ++n) {
        if (dealt == deck.size()) {   // a fresh shuffle of all rows
            for (std::size_t k = 0; k < deck.size(); ++k)
                deck[k] = k;
            for (std::size_t k = deck.size(); k > 1; --k)
                std::swap(deck[k - 1], deck[random.below(std::uint32_t(k))]);
            dealt = 0;
        }
        const RowInfo &row = rows[deck[dealt++]];
        const int size = std::max(row.payloadSize, row.wireSize);
        entry.payload.resize(size);
        char *bytes = entry.payload.data();
        for (int k = row.wireSize; k < size; ++k)   // bytes behind the record's fields
            bytes[k] = char(random.below(256));
        for (const WireField &field : row.fields)
            if (field.position >= 0 && field.position + field.width <= size)
                putLittleEndian(bytes + field.position, synthValue(field, random), field.width);
        entry.msgId = row.id;
        entry.sequence = quint16(sequence++);
        entry.msecs += random.below(20);
        appendBusLogLine(entry, out.buffer());
        out.buffer().push_back('\n');
        out.commit();
    }
    return finishOutput(command, out);
}

} // namespace

Command addSynthCommand(CLI::App &parent)
{
    auto options = std::make_shared<SynthOptions>();
    CLI::App *command = parent.add_subcommand("synth", "write a deterministic bus log over every message");
    command->add_option("--count", options->count, "number of messages (default 1000)")->check(wholeNumber());
    command->add_option("--seed", options->seed, "seed of the pseudo-random values (default 1)")->check(wholeNumber());
    command->add_option("--start", options->start, "time of the first message, whole seconds since 1970 "
                                                    "(default 1700000000)")
        ->check(wholeNumber())
        ->check(CLI::Range(0ull, 253402300799ull - 1000000000ull).description(""));
    command->footer(R"(Writes a valid bus log to standard output. Every message of the dictionary
appears once in each run of 474 lines, in an order and with field values drawn
from the seed; the same arguments always give the same log.

Examples:
  vorlink synth --count 1000000 --seed 3 > big.log
  vorlink synth --count 474 | vorlink decode)");
    return {command, [command, options] { return runSynth(*command, *options); }};
}

} // namespace vorlink
