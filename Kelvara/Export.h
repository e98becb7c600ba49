#pragma once

/// Marks the symbols that libkelvara.so exports. All others are hidden.
#define KVA_EXPORT __attribute__((visibility("default")))
