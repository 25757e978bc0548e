// ds_map.h - QVAdsMap (structure QVADSMAP).
//
// An ordered map from strings to arbitrary language values, held in a heap
// map so that it is saved and restored with the session.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAdsMapStartup(void);
