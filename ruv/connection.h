#pragma once
/// The life of a connection handle: RUVAllocConn, RUVOpen, RUVEnableSSL, RUVClose, RUVFreeConn,
/// and the settings that are additions (interrupt, TLS options, peer check), all declared and
/// described in ruvlib.h. This header only offers what the library calls from inside.
#include "ruv/conn.h"

/// RUVClose and RUVOpen without their trace lines, for the send path's reconnect. `conn` is not
/// null. @return libruv_open: 0, or -1 with RUVOpen's error.
void libruv_close(RUVConn *conn);
int libruv_open(RUVConn *conn);
