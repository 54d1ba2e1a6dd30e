// The 44-slot table of host services that every plug-in receives in
// OnPeekInterface. Each slot forwards to Host::Current(); with no live host a
// slot answers harmlessly (null, 0, -1, or nothing) instead of crashing. Slots
// that no plug-in of this project calls hold a function that does nothing.
//
// Notes on a few slots:
//  - GetConfigString never returns null: an absent key gives the default, or
//    "" when the default is null.
//  - GetNow's pointer stays valid while the host lives; the value is the loop's
//    cached time, refreshed at each call.
//  - ConnectTo ignores its flag.
//  - StartAioRead/Write/FDSync return the request's flow number or -1.
#ifndef ZELVAR_HOST_HOST_TABLE_H
#define ZELVAR_HOST_HOST_TABLE_H

#include "zelvar/host_interface.h"

namespace zelvar_host {

void FillHostTable(zelvar::HostFunction* table);

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_HOST_TABLE_H
