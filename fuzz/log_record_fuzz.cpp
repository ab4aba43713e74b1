// Fuzzes the structured log client's record building with hostile text in every place a caller can put
// it: the message (over-long, "%" sequences, NUL, high bytes: passed as data, never as the format), the
// function, source and message names, and the data bytes of an AT-command or data record with any
// direction index. A record is one line of at most 1022 characters; nothing is read or written out of
// bounds and the client keeps working.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fuzz-setup.h"

// Takes the next piece of the input: one length byte, then that many bytes (fewer at the end).
static std::string take(const uint8_t *&data, size_t &size) {
    if (size == 0) return std::string();
    size_t len = data[0];
    ++data;
    --size;
    if (len > size) len = size;
    std::string piece(reinterpret_cast<const char *>(data), len);
    data += len;
    size -= len;
    return piece;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_setup_logs();
    if (size < 4) return 0;
    const unsigned level = 1u << (data[0] % 12);  // one of the levels, or an unknown bit
    const unsigned dir = data[1] % 12;            // inside and outside the direction table
    const unsigned char idx = data[2];
    const bool with_message = (data[3] & 1) != 0;
    data += 4;
    size -= 4;
    const std::string func = take(data, size);
    const std::string file = take(data, size);
    const std::string text = take(data, size);
    const std::string msg_name = take(data, size);
    // The rest: the message, repeated to go past the line's length when it is long enough already.
    std::string message(reinterpret_cast<const char *>(data), size);
    if (message.size() > 200) message += message + message;

    sfw_log_lock(nullptr);
    if (with_message) sfw_log_build_extended_info("%s", message.c_str());
    sfw_log_full(nullptr, "zv-fuzz", level, file.c_str(), 7, func.c_str(), -118, dir, message.data(),
                 static_cast<unsigned>(message.size()), idx, text.empty() ? nullptr : text.c_str(),
                 msg_name.empty() ? nullptr : msg_name.c_str());
    if (log_obj.m_fp == nullptr) abort();
    return 0;
}
