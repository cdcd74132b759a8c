#pragma once
// Turns any bytes into a record: its type and version, and a row of setter calls.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ruv/conn.h"
#include "ruv/record.h"
#include "tests/fuzz/setter_calls.h"

namespace program {

// A catalogue whose entries the input chooses, valid or not; the names are f0, f1, ...
struct catalogue {
    custom_field_info_t fields[40] = {};
    char *names[40];
    custom_field_info_t *entries[40];
    cfid_to_cfi_t groups[40] = {};

    void fill(RUVConn *conn, source &input) {
        const int count = static_cast<int>(input.take(1) % 41);
        std::vector<int> order;
        for (int i = 0; i < count; ++i) order.push_back(i);
        for (int i : order) {
            custom_field_info_t &field = fields[i];
            snprintf(field.name, sizeof field.name, "f%d", i);
            field.id = i + 1;
            field.type = static_cast<int>(input.take(1) % 18) - 1;
            field.rowa = static_cast<int>(input.take(1) % 12) - 1;
            field.rowf = static_cast<int>(input.take(1) % 9) - 1;
            field.off = static_cast<int>(input.take(1) % 70) - 2;
            static constexpr int kSizes[] = {0, 0, 4, 1, 1, 2, 2, 4, 4, 8, 8, 4, 1, 2, 4, 8, 0};
            field.size_of = field.type < 0 ? 0 : kSizes[field.type];
            groups[i].cfi[0] = &field;
            groups[i].cnt = 1;
            groups[i].id = static_cast<uint16_t>(i + 1);
        }
        std::sort(order.begin(), order.end(),
                  [this](int a, int b) { return strcmp(fields[a].name, fields[b].name) < 0; });
        for (int i = 0; i < count; ++i) {
            names[i] = fields[order[static_cast<size_t>(i)]].name;
            entries[i] = &fields[order[static_cast<size_t>(i)]];
        }
        conn->cfi = {count, count, names, fields, entries, groups};
    }
};

// A record that owns its connection and its data source; not to be copied.
struct made {
    RUVConn conn;
    catalogue fields;
    RUVData_t record;
    RUVDSInfo source_of_events = {};
    bool has_source = false;
    char host[5] = "host";

    void run(source &input) {
        memset(static_cast<void *>(&conn), 0, sizeof conn);
        strcpy(conn.ip_addr, "2001:db8:1111:2222:3333:4444:5555:6666");
        fields.fill(&conn, input);
        memset(static_cast<void *>(&record), 0, sizeof record);
        record.ctl.type = static_cast<uint32_t>(input.take(1) % 4 + 1);
        record.ctl.ver = static_cast<int>(input.take(1) % 6) + 1;
        record.ctl.sver = static_cast<int>(input.take(1) % 3);
        const auto kind = static_cast<int>(input.take(1) % 4);
        has_source = kind != 0;
        source_of_events.type = kind;
        if (kind == kDsHostID)
            source_of_events.hostid = host;
        else
            for (uint32_t &word : source_of_events.ipv6)
                word = static_cast<uint32_t>(input.take(4));
        while (!input.empty()) calls()[input.take(1) % calls().size()](&conn, &record, input);
    }
    const RUVDSInfo *dsinfo() const { return has_source ? &source_of_events : nullptr; }
};

}  // namespace program
