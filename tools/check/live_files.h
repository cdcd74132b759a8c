// The part of a live check that looks at directories and files.
#pragma once

#include "tools/check/config_text.h"
#include "tools/check/steps.h"

/// Tells whether the collector's account may write its bookmarks and its log and read what it is to
/// tail. The account is that of process `collector`, or, with 0, the owner of the bookmark
/// directory; where the tool has no right to ask for another account, its own rights are told.
void check_live_files(const config_text &text, long collector, steps *done);
