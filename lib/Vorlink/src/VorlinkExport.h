#pragma once

// The library is built with hidden visibility; this marks what hosts may call.
#define VORLINK_EXPORT __attribute__((visibility("default")))
