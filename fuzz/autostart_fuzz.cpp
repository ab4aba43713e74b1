// Fuzzes the auto-start list from both sides that outside input reaches: the list file as read from
// /data (any bytes, any length; a slot may hold 40 name bytes without a terminator), and the
// "+AUTO_START_SERVICE" request's argument ("\"NAME\",MODE"). The first input byte chooses the side.
// The list is never run here: its entries would become shell lines.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz-setup.h"
#include "sa-autostart.h"

static void write_list_file(const uint8_t *data, size_t size) {
    mkdir(SA_AUTO_START_DIR, 0770);
    FILE *fp = fopen(SA_AUTO_START_DIR SA_AUTO_START_FILE_NAME, "we");
    if (fp == nullptr) abort();
    if (size > 0 && fwrite(data, 1, size, fp) != size) abort();
    fclose(fp);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_setup_logs();
    if (size == 0) return 0;
    const bool file_side = (data[0] & 1) != 0;
    ++data;
    --size;
    if (file_side) {
        write_list_file(data, size < 512 ? size : 512);
        long ret = auto_start_service_list_read();
        if (ret != ERR_NONE && ret != ERR_CALL_C_FUNCTION && ret != ERR_NOT_FOUND) abort();
        // Whole records only: what follows the last whole record is free.
        size_t whole = size / SA_SERVICE_NAME_SIZE;
        for (size_t i = whole; i < SA_AUTO_START_SLOTS; ++i) {
            if (auto_start_service_list[i][0] != '\0') abort();
        }
        // A query of every name read must not run past a slot.
        for (int i = 0; i < SA_AUTO_START_SLOTS; ++i) {
            char name[SA_SERVICE_NAME_SIZE + 1];
            memcpy(name, auto_start_service_list[i], SA_SERVICE_NAME_SIZE);
            name[SA_SERVICE_NAME_SIZE] = '\0';
            auto_start_service_list_update(name, 0);
        }
        return 0;
    }
    // The request side, as the dispatcher hands it over: text after "=", inside the request record.
    auto_start_service_list_read();
    static sa_msg_st req;
    static sa_msg_st rsp;
    memset(&req, 0, sizeof(req));
    memset(&rsp, 0, sizeof(rsp));
    size_t n = size < sizeof(req.m_data_a) - 1 ? size : sizeof(req.m_data_a) - 1;
    memcpy(req.m_data_a, data, n);
    req.m_len = static_cast<uint16_t>(n == 0 ? 1 : n);
    long ret = handle_sa_auto_start_service_set(fuzz_sink_fd(), &req, &rsp, req.m_data_a);
    if (ret != 0) abort();
    if (rsp.m_data_a[sizeof(rsp.m_data_a) - 1] != '\0') abort();
    return 0;
}
