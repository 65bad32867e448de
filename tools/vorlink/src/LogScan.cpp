#include "LogScan.h"
#include "Dictionary.h"
#include "Selection.h"

#include "ZelkoMsgProtoUtils.h"

#include <QDateTime>

#include <cstdio>

namespace vorlink {

bool LogScan::open(const std::string &path, std::string &error)
{
    if (!input_.open(path, error))
        return false;
    progress_ = std::make_unique<Progress>(!flags_.noProgress, input_.totalBytes());
    rejects_ = std::make_unique<Rejects>(input_.name(), *progress_);
    return true;
}

bool LogScan::reject(const char *cause, const std::string &reason)
{
    rejects_->report(input_.lineNumber(), cause, reason);
    stopped_ = flags_.strict;
    return !stopped_;
}

bool LogScan::next()
{
    const Dictionary &dictionary = Dictionary::instance();
    std::string_view line;
    while (!stopped_ && input_.next(line)) {
        progress_->tick(input_.bytesConsumed(), input_.lineNumber());
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
        message_.sequence = entry_.sequence;
        message_.msgId = entry_.msgId;
        message_.payload.swap(entry_.payload);
        const bool converted = zelko::canMessageToProtobufByteArray(
            QDateTime::fromMSecsSinceEpoch(entry_.msecs, Qt::UTC), message_, proto_);
        message_.payload.swap(entry_.payload);
        if (!converted) {
            const int size = entry_.payload.size();
            if (size < row_->wireSize)
                reject("payload too short", "payload of " + std::to_string(size) + " bytes is too short for " +
                                                row_->message + " (" + hexId(entry_.msgId) + "), which needs " +
                                                std::to_string(row_->wireSize));
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
