#pragma once

/// \file
/// The mark of what hosts may call.

/// Marks what the library exports: it is built with hidden visibility, and
/// only the operations so marked, and the generated protobuf classes, are
/// visible to hosts.
#define VORLINK_EXPORT __attribute__((visibility("default")))
