// hostrixctl's I/O with the daemon: one request and reply over the control
// socket, the host file read under the daemon's lock, the debug FIFO.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control/ctrl_msg.h"
#include "hosts/lanhost.h"
#include "outcome.h"

inline constexpr int kReplyTimeoutSec = 5;

// Sends REQUEST and reads the whole reply into REPLY. Only transport problems
// fail (kExitUnreachable); the reply's status is the caller's to judge.
Outcome exchange(const ctrlMsg_t &request, ctrlMsg_t &reply);

// Asks inform query CMD again while a reply comes back full, so that every
// pending host is collected. Consumes the daemon's pending reports.
Outcome drainInform(uint32_t cmd, std::vector<lanHostInfo_t> &hosts);

// The host file's whole content, read under a shared lock.
Outcome readHostFile(std::string &bytes);

// Writes "log LEVEL" into the debug FIFO.
Outcome writeFifoLevel(uint32_t level);
