#pragma once

class udsClient;

// The management client takes the next datagram as the reply to its request, so a reply that
// came late (after its request timed out, or from a ptp4l since restarted) would answer the
// next request, and every later one would be one behind for good. The service drops what is
// already queued before a restart's first request and before each status cycle: the one place
// where it does not simply take the next datagram. Returns how many datagrams were dropped.
int discardQueuedReplies(udsClient& client);
