// The counters' exchanges with nf_tables over netlink (libnftnl builds and parses the
// messages, libmnl walks them): every change is one batch transaction, answered only
// when the kernel has taken or refused all of it. No process is started.
#pragma once

#include <span>
#include <vector>

#include "core/unique_fd.h"
#include "platform/linux/netlink_route.h"
#include "platform/linux/nft_counters.h"

// Each returns 0 or the errno of the failure (the kernel's refusal, ETIMEDOUT for no
// answer).

// In one transaction: adds bridge table hostrix, deletes it (with whatever a killed
// daemon left in it), and makes it afresh with its sets, chains and rules.
int nftReplaceTable();
int nftDeleteTable();
// Adds every MAC of OPS to both sets, then deletes those leaving: one transaction.
// Adding first makes the removal of a MAC that is not there no error.
int nftSendHostOps(std::span<const NftHostOp> ops);

// A close-on-exec nf_tables netlink socket with a short receive timeout.
UniqueFd openNftSocket();
// Asks for the elements of SET and hands DECODE each datagram of the answer; SEQUENCE
// is the request's.
bool nftDumpSet(const UniqueFd &sock, NftSet set, uint32_t sequence,
                const RouteDatagramDecoder &decode);
// The elements of sets tx and rx, at most kMaxNftElements; false when a dump failed.
bool nftReadCounters(std::vector<NftSetElement> &elements);
