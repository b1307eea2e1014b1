#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>

// What every fuzz target shares: the application object that Qt's event
// loop, translation and meta-types need, created once per process, and
// traces switched off so that failures the input provokes on purpose do not
// drown the fuzzer's own output.
namespace KeldaFuzz {

void EnsureApplication();

// The input as a byte array that does not copy the fuzzer's buffer.
inline QByteArray Bytes(const uint8_t *data, size_t size)
{
    return QByteArray::fromRawData(reinterpret_cast<const char *>(data), static_cast<int>(size));
}

// A finding the sanitizers cannot see (a broken invariant): prints the
// reason and aborts, which the fuzzer and the replay both report.
[[noreturn]] void Fail(const char *reason);

} // namespace KeldaFuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
