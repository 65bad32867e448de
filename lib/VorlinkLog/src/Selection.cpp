#include "Selection.h"
#include "Dictionary.h"

#include <algorithm>
#include <cctype>

namespace vorlink {
namespace {

std::string lower(std::string text)
{
    for (char &c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool readHexId(std::string text, bool needPrefix, quint16 &id)
{
    const bool prefixed = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (prefixed)
        text.erase(0, 2);
    else if (needPrefix)
        return false;
    if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    id = quint16(std::stoul(text, nullptr, 16));
    return true;
}

std::size_t editDistance(const std::string &a, const std::string &b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

const char *const nodePrefixes[] = {"Td", "Dd", "Fp", "Ui"};

} // namespace

std::string nearestNames(const std::string &wanted, const std::vector<std::string> &candidates, std::size_t count)
{
    const std::string key = lower(wanted);
    std::vector<std::pair<std::size_t, const std::string *>> scored;
    for (const std::string &candidate : candidates) {
        const std::string name = lower(candidate);
        // A name that holds what was typed is nearer than its length suggests.
        const std::size_t distance = name.find(key) != std::string::npos ? 0 : editDistance(key, name);
        scored.emplace_back(distance, &candidate);
    }
    count = std::min(count, scored.size());
    std::partial_sort(scored.begin(), scored.begin() + std::ptrdiff_t(count), scored.end(),
                      [](const auto &x, const auto &y) { return x.first != y.first ? x.first < y.first : *x.second < *y.second; });
    std::string text;
    for (std::size_t k = 0; k < count; ++k)
        text += (k == 0 ? "" : ", ") + *scored[k].second;
    return text;
}

bool resolveMessageKey(const std::string &text, std::vector<const RowInfo *> &rows, std::string &error)
{
    const Dictionary &dictionary = Dictionary::instance();
    rows.clear();
    const auto byId = [&](unsigned id, const std::string &shown) {
        const RowInfo *row = id <= 0xFFFF ? dictionary.find(quint16(id)) : nullptr;
        if (row == nullptr) {
            error = "no message has the id " + shown;
            return false;
        }
        rows.push_back(row);
        return true;
    };
    quint16 id = 0;
    if (readHexId(text, true, id))
        return byId(id, hexId(id));
    // 0x and more hexadecimal digits than an id has: no name looks like that.
    if (text.size() > 6 && (text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0) &&
        std::all_of(text.begin() + 2, text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; })) {
        const std::size_t significant = text.find_first_not_of('0', 2);
        if (significant == std::string::npos || text.size() - significant <= 4)
            return byId(unsigned(std::stoul(text.substr(2), nullptr, 16)), text);
        error = "the id " + text + " is wider than 16 bits (ids run from 0x0000 to 0xFFFF)";
        return false;
    }
    if (!text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string::npos) {
        const unsigned decimal = unsigned(std::stoul(text));
        return byId(decimal, text + (decimal <= 0xFFFF ? " (" + hexId(decimal) + ")" : std::string()));
    }
    for (const char *prefix : nodePrefixes) {
        if (lower(text) != lower(prefix))
            continue;
        // The node's word ends where a lower-case letter does not follow:
        // TdEvent and Td3WayValveSetStateRequest, not a Tdx... of another word.
        for (const RowInfo &row : dictionary.rows())
            if (row.message.size() > 2 && row.message.compare(0, 2, prefix) == 0 &&
                !std::islower(static_cast<unsigned char>(row.message[2])))
                rows.push_back(&row);
        return true;
    }
    if (const RowInfo *row = dictionary.findByName(text)) {
        rows.push_back(row);
        return true;
    }
    if (readHexId(text, false, id) && dictionary.find(id) != nullptr) {
        rows.push_back(dictionary.find(id));
        return true;
    }
    std::vector<std::string> names;
    for (const RowInfo &row : dictionary.rows())
        names.push_back(row.message);
    error = "no message '" + text + "'; nearest: " + nearestNames(text, names);
    return false;
}

bool Selection::addMessage(const std::string &text, std::string &error)
{
    std::vector<const RowInfo *> rows;
    if (!resolveMessageKey(text, rows, error))
        return false;
    for (const RowInfo *row : rows)
        ids_.set(row->id);
    all_ = false;
    return true;
}

bool Selection::setSpan(LogTime from, LogTime to)
{
    from_ = from;
    to_ = to;
    return from <= to;
}

std::vector<const RowInfo *> Selection::rows() const
{
    std::vector<const RowInfo *> rows;
    if (all_)
        return rows;
    for (const RowInfo &row : Dictionary::instance().rows())
        if (ids_[row.id])
            rows.push_back(&row);
    return rows;
}

} // namespace vorlink
