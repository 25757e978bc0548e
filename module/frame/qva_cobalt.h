// qva_cobalt.h - the module's entry, its message block and its routine
// registration.
#pragma once

#include <qva/qva.h>

// The module's message block; 0 until QVA_Load defined it (and 0 when that
// failed).
extern QVA_MSG_BLOCK qva_cobalt_msg_block;

// Indexes of the module's messages, for QVA_MessageFromBlock.
enum : int {
  QVA_M_COBALT_DSMAP_HEAPDEREFERR = 0,
  QVA_M_COBALT_FWMSG_IDCORRUPT = -1,
};

// The message table: row i is raised with index -i.
extern QVA_MSG_DEF msg_arr[];
extern const int msg_arr_count;

// Defines the message block "QVA_MBLK_COBALT"; 0 on failure.
QVA_MSG_BLOCK qva_cobalt_msg_init(void);
// Registers the function table, then the procedure table; 1 when both were
// accepted.
int qva_cobalt_rtn_init(void);
