// qva_cobalt_rtn_tbl.cpp - the routines the module registers, one table of
// functions and one of procedures, each in ascending character order of
// the names (':' sorts before letters).  A name CLASS::METHOD registers a
// method of that class.
#include "frame/qva_cobalt_rtn_tbl.h"

#include <iterator>

#include "dsmap/ds_map.h"
#include "framework/fw_behavior.h"
#include "framework/fw_delayargbehav.h"
#include "framework/fw_delaybehav.h"
#include "framework/fw_funcbehav.h"
#include "framework/fw_hashndlr.h"
#include "framework/fw_ident.h"
#include "framework/fw_message.h"
#include "framework/fw_messhndlr.h"
#include "framework/fw_objbehav.h"
#include "framework/fw_procbehav.h"
#include "framework/fw_query.h"
#include "framework/fw_querybehav.h"
#include "framework/fw_saveable.h"

#define KW QVA_SYSFUN_KEYWORDS

QVA_SYSFUN_DEF function_addr[] = {
    {QVA_RTN(QVA_fwIdent_getIdent), "GET_FWIDENT", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_GetData), "QVADSMAP::GETDATA", 2, 2, 0, 0},
    {QVA_RTN(QVA_dsMap_GetKeys), "QVADSMAP::GETKEYS", 1, 2, 0, 0},
    {QVA_RTN(QVA_dsMap_GetSize), "QVADSMAP::GETSIZE", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_Init), "QVADSMAP::INIT", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_KeyExists), "QVADSMAP::KEYEXISTS", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwBehavior_Init), "QVAFWBEHAVIOR::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwBehavior_IsRegistered), "QVAFWBEHAVIOR::ISREGISTERED", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwBehavior_MessageString), "QVAFWBEHAVIOR::MESSAGESTRING", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwDelayArgBehav_Init), "QVAFWDELAYARGBEHAV::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwDelayBehav_Init), "QVAFWDELAYBEHAV::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwFuncBehav_Func), "QVAFWFUNCBEHAV::FUNC", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwFuncBehav_Init), "QVAFWFUNCBEHAV::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwHasAHandler_Handler), "QVAFWHASAHANDLER::HANDLER", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwHasAHandler_Init), "QVAFWHASAHANDLER::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwMessage_Init), "QVAFWMESSAGE::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwMessage_MessageString), "QVAFWMESSAGE::MESSAGESTRING", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_Behaviors), "QVAFWMESSAGEHANDLER::BEHAVIORS", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_Init), "QVAFWMESSAGEHANDLER::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwMessageHandler_IsScoped), "QVAFWMESSAGEHANDLER::ISSCOPED", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_ScopedMess), "QVAFWMESSAGEHANDLER::SCOPEDMESSAGES", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwObjBehav_Init), "QVAFWOBJBEHAV::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwObjBehav_Method), "QVAFWOBJBEHAV::METHOD", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwObjBehav_Object), "QVAFWOBJBEHAV::OBJECT", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwProcBehav_Init), "QVAFWPROCBEHAV::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwProcBehav_Proc), "QVAFWPROCBEHAV::PROC", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwQuery_Init), "QVAFWQUERY::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwQuery_Result), "QVAFWQUERY::RESULT", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwQuery_SendQuery), "QVAFWQUERY::SENDQUERY", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwQueryBehav_Init), "QVAFWQUERYBEHAV::INIT", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwQueryBehav_Response), "QVAFWQUERYBEHAV::RESPONSE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_Init), "QVAFWSAVEABLE::INIT", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwIdent_rolloverIdent), "ROLLOVER_FWIDENT", 1, 1, 0, 0},
};

QVA_SYSFUN_DEF procedure_addr[] = {
    {QVA_RTN(QVA_fwIdent_acquire), "FWIDENT_ACQUIRE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwIdent_garbageCollection), "FWIDENT_GC", 0, 1, 0, 0},
    {QVA_RTN(QVA_fwIdent_release), "FWIDENT_RELEASE", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_Cleanup), "QVADSMAP::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_dsMap_Insert), "QVADSMAP::INSERT", 3, 3, 0, 0},
    {QVA_RTN(QVA_dsMap_Remove), "QVADSMAP::REMOVE", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwBehavior_Cleanup), "QVAFWBEHAVIOR::CLEANUP", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwBehavior_Execute), "QVAFWBEHAVIOR::EXECUTE", 1, 2, 0, 0},
    {QVA_RTN(QVA_fwBehavior_Register), "QVAFWBEHAVIOR::REGISTER", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwBehavior_Restore), "QVAFWBEHAVIOR::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwBehavior_SetMessageString), "QVAFWBEHAVIOR::SETMESSAGESTRING", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwBehavior_Unregister), "QVAFWBEHAVIOR::UNREGISTER", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwDelayArgBehav_Cleanup), "QVAFWDELAYARGBEHAV::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwDelayArgBehav_DelayExec), "QVAFWDELAYARGBEHAV::DELAYEXECUTE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwDelayArgBehav_Execute), "QVAFWDELAYARGBEHAV::EXECUTE", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwDelayBehav_Cleanup), "QVAFWDELAYBEHAV::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwDelayBehav_DelayExec), "QVAFWDELAYBEHAV::DELAYEXECUTE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwDelayBehav_Execute), "QVAFWDELAYBEHAV::EXECUTE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwDelayBehav_Restore), "QVAFWDELAYBEHAV::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwDelayBehav_SetMethod), "QVAFWDELAYBEHAV::SETMETHOD", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwFuncBehav_Cleanup), "QVAFWFUNCBEHAV::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwFuncBehav_Execute), "QVAFWFUNCBEHAV::EXECUTE", 1, 2, 0, 0},
    {QVA_RTN(QVA_fwFuncBehav_Restore), "QVAFWFUNCBEHAV::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwFuncBehav_SetFunc), "QVAFWFUNCBEHAV::SETFUNC", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwHasAHandler_Cleanup), "QVAFWHASAHANDLER::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwHasAHandler_Restore), "QVAFWHASAHANDLER::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwHasAHandler_SetHandler), "QVAFWHASAHANDLER::SETHANDLER", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwMessage_Cleanup), "QVAFWMESSAGE::CLEANUP", 1, 1, KW, 0},
    {QVA_RTN(QVA_fwMessage_Restore), "QVAFWMESSAGE::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwMessage_Send), "QVAFWMESSAGE::SEND", 1, 2, 0, 0},
    {QVA_RTN(QVA_fwMessage_SetMessageString), "QVAFWMESSAGE::SETMESSAGESTRING", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_AddBehav), "QVAFWMESSAGEHANDLER::ADDBEHAVIOR", 2, 3, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_Cleanup), "QVAFWMESSAGEHANDLER::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_RemBehav), "QVAFWMESSAGEHANDLER::REMOVEBEHAVIOR", 2, 3, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_Restore), "QVAFWMESSAGEHANDLER::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_ScopeMess), "QVAFWMESSAGEHANDLER::SCOPEMESSAGE", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_SendMess), "QVAFWMESSAGEHANDLER::SENDMESSAGE", 2, 3, 0, 0},
    {QVA_RTN(QVA_fwMessageHandler_UnScopeMes), "QVAFWMESSAGEHANDLER::UNSCOPEMESSAGE", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwObjBehav_Cleanup), "QVAFWOBJBEHAV::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwObjBehav_Execute), "QVAFWOBJBEHAV::EXECUTE", 1, 2, 0, 0},
    {QVA_RTN(QVA_fwObjBehav_Restore), "QVAFWOBJBEHAV::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwObjBehav_SetMethod), "QVAFWOBJBEHAV::SETMETHOD", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwObjBehav_SetObject), "QVAFWOBJBEHAV::SETOBJECT", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwProcBehav_Cleanup), "QVAFWPROCBEHAV::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwProcBehav_Execute), "QVAFWPROCBEHAV::EXECUTE", 1, 2, 0, 0},
    {QVA_RTN(QVA_fwProcBehav_Restore), "QVAFWPROCBEHAV::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwProcBehav_SetProc), "QVAFWPROCBEHAV::SETPROC", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwQuery_Cleanup), "QVAFWQUERY::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwQuery_Restore), "QVAFWQUERY::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwQuery_SetResult), "QVAFWQUERY::SETRESULT", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwQueryBehav_Cleanup), "QVAFWQUERYBEHAV::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwQueryBehav_Execute), "QVAFWQUERYBEHAV::EXECUTE", 2, 2, 0, 0},
    {QVA_RTN(QVA_fwQueryBehav_Restore), "QVAFWQUERYBEHAV::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwQueryBehav_SetResponse), "QVAFWQUERYBEHAV::SETRESPONSE", 1, 2, 0, 0},
    {QVA_RTN(QVA_fwSaveable_Cleanup), "QVAFWSAVEABLE::CLEANUP", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_DoRestore), "QVAFWSAVEABLE::DORESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_ResetRestored), "QVAFWSAVEABLE::RESETRESTORED", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_Restore), "QVAFWSAVEABLE::RESTORE", 1, 1, 0, 0},
    {QVA_RTN(QVA_fwSaveable_RestoreArray), "QVAFWSAVEABLERESTOREARRAY", 1, 1, 0, 0},
};

#undef KW

const int function_addr_count = static_cast<int>(std::size(function_addr));
const int procedure_addr_count = static_cast<int>(std::size(procedure_addr));
