#include "LogScan.h"
#include "Dictionary.h"
#include "Selection.h"

#include "ZelkoMsgProtoUtils.h"

#include <QDateTime>

namespace vorlink {

LogScan::LogScan(const Selection &selection, bool strict) : selection_(selection), strict_(strict)
{
    // A line too long to hold, or compressed data that broke off.
    input_.onRefuse([this](long long line, const char *cause, std::string reason) {
        rejects_.report(line, cause, std::move(reason));
        stopped_ = strict_;
        return !stopped_;
    });
}

bool LogScan::reject(const char *cause, std::string reason)
{
    rejects_.report(input_.lineNumber(), cause, std::move(reason));
    stopped_ = strict_;
    return !stopped_;
}

void LogScan::rejectShort()
{
    reject("payload too short", "payload of " + std::to_string(entry_.payload.size()) + " bytes is too short for " +
                                    row_->message + " (" + hexId(entry_.msgId) + "), which needs " +
                                    std::to_string(row_->wireSize));
}

bool LogScan::next()
{
    const Dictionary &dictionary = Dictionary::instance();
    std::string_view line;
    while (!stopped_ && input_.next(line)) {
        if (progress_ && (input_.lineNumber() & 0x3FF) == 0)
            progress_(input_.position(), input_.lineNumber());
        const LineResult result = parseBusLogLine(line, entry_);
        if (result.kind == LineResult::Skip)
            continue;
        if (result.kind == LineResult::Error) {
            reject(result.cause, result.reason);
            continue;
        }
        if (!selection_.wants(entry_)) {
            ++leftOut_;
            continue;
        }
        row_ = dictionary.find(entry_.msgId);
        if (row_ == nullptr || row_->prototype == nullptr) {
            reject("unknown id", "unknown message id " + hexId(entry_.msgId));
            continue;
        }
        if (!convert_) {
            if (entry_.payload.size() < row_->wireSize) {
                rejectShort();
                continue;
            }
            ++messages_;
            return true;
        }
        message_.sequence = entry_.sequence;
        message_.msgId = entry_.msgId;
        message_.payload.swap(entry_.payload);
        const bool converted = zelko::canMessageToProtobufByteArray(
            QDateTime::fromMSecsSinceEpoch(entry_.msecs, Qt::UTC), message_, proto_);
        message_.payload.swap(entry_.payload);
        if (!converted) {
            if (entry_.payload.size() < row_->wireSize)
                rejectShort();
            else
                reject("not converted", "the library could not convert " + row_->protoName);
            continue;
        }
        ++messages_;
        return true;
    }
    return false;
}

} // namespace vorlink
