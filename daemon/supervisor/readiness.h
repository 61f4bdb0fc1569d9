// Telling whoever started the daemon that it serves.
#pragma once

/// Sends "READY=1" to the socket that `$NOTIFY_SOCKET` names, if it is set (sd_notify(3)). A
/// failure is logged: the daemon serves all the same.
void NotifyReady();
