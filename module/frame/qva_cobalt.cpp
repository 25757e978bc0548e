// qva_cobalt.cpp - the module's two entry points: QVA_Load defines the
// class structures and the message block and registers the routines;
// QVA_ResetSession drops what the module remembers of a session.
#include "frame/qva_cobalt.h"

#include "containers/maph_trust.h"
#include "dsmap/ds_map.h"
#include "frame/fw_x.h"
#include "frame/qva_cobalt_rtn_tbl.h"

#define QVA_EXPORT __attribute__((visibility("default")))

QVA_MSG_BLOCK qva_cobalt_msg_block = nullptr;

QVA_MSG_BLOCK qva_cobalt_msg_init(void) {
  return QVA_MessageDefineBlock("QVA_MBLK_COBALT", msg_arr_count, msg_arr);
}

int qva_cobalt_rtn_init(void) {
  if (!QVA_SysRtnAdd(function_addr, 1, function_addr_count)) return 0;
  return QVA_SysRtnAdd(procedure_addr, 0, procedure_addr_count) ? 1 : 0;
}

extern "C" QVA_EXPORT int QVA_Load(void) {
  // The structures come first and stay defined whatever happens later, so
  // that saved instances can always be read back.
  QVA_fwObjsInit();
  QVAdsMapStartup();

  qva_cobalt_msg_block = qva_cobalt_msg_init();
  if (!qva_cobalt_msg_block) return 0;

  return qva_cobalt_rtn_init() == 1 ? 1 : 0;
}

extern "C" QVA_EXPORT void QVA_ResetSession(void) {
  QVA_FwObjsResetSession();
  maphForgetTrust();
}
