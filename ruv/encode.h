#pragma once
/// From a record to the segments of one wire unit. Pure: no descriptor, no allocation, no lock.
#include <sys/uio.h>

#include <cstdint>

#include "ruv/bodies.h"
#include "ruv/bodies_windows.h"
#include "ruv/conn.h"
#include "ruv/record.h"
#include "ruv/wire.h"

/// Magic, header, three slices of a block, and the longest list of variable parts, which is the
/// version-6 Windows event text: 13 pieces around two per insertion string.
inline constexpr int kUnitSegments = 2 + 3 + 13 + 2 * kInsertionStrings;

/// One encoded unit. The segments point into the unit itself, into constants and into the record's
/// strings, so a unit is neither copied nor used after its record changed. Only the first `count`
/// segments are set; the rest of the unit is deliberately left uninitialised.
struct encoded_unit {
    encoded_unit() {}
    encoded_unit(const encoded_unit &) = delete;
    encoded_unit &operator=(const encoded_unit &) = delete;

    RUVv6_Header_t header;
    alignas(8) uint8_t block[kBlockBytes];  ///< the body's fixed block before it is sliced
    win_texts texts;                        ///< numbers and address of a Windows event text
    const body_form *form;                  ///< layout of `block`; null when the unit has no body
    int count;
    iovec segments[kUnitSegments];
};

/// True when `record` has at least one of the fields that its type requires.
bool libruv_okay_to_send(const RUVData_t *record);

/// Encodes `record` into `unit`. `dsinfo` may be null; `cid` goes into the header of a version-6
/// record and is ignored otherwise. `local_address` is the text that stands for the data source in
/// a Windows event text when the source is no address; null reads as empty.
/// Returns 0, or -1 with error 18 (no required field) or 2 (a version that the type never had on
/// the wire; the error argument keeps its value).
int libruv_encode(const RUVData_t *record, const RUVDSInfo *dsinfo, int cid,
                  const char *local_address, encoded_unit *unit);
