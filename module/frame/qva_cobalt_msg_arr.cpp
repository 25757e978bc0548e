// qva_cobalt_msg_arr.cpp - the module's own messages.
#include <iterator>

#include "frame/qva_cobalt.h"

QVA_MSG_DEF msg_arr[] = {
    {"QVA_M_COBALT_DSMAP_HEAPDEREFERR", "QVAdsMap heap dereference error"},
    {"QVA_M_COBALT_FWMSG_IDCORRUPT", "FWIdent corruption"},
};

const int msg_arr_count = static_cast<int>(std::size(msg_arr));
