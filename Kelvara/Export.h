#pragma once

/// Marks what libkelvara.so exports; everything else in it is hidden.
#define KVA_EXPORT __attribute__((visibility("default")))
