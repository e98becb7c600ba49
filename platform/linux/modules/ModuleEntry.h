#pragma once

/// Marks the function through which libkelvara.so uses a module. In programs that are linked with
/// the static libraries it is an ordinary function.
#define KVA_MODULE_ENTRY extern "C" __attribute__((visibility("default")))
