// fw_x.h - start-up and session reset of the framework classes.
#pragma once

// Defines the twelve framework class structures, each after its superclass.
void QVA_fwObjsInit(void);
// The framework's part of a session reset.
void QVA_FwObjsResetSession(void);
