// A long capture through a hostile local server: failures before and after the
// server acted, stalls past the client's time limit, and a sign-in revoked
// mid-call; then what the server stored, against what the capture emitted.
// The chaos test runs a few seeds of it, bench/chaos_soak as many as it takes.
#pragma once

#include <QString>

namespace tessel::test {

struct ChaosOutcome {
    int faults = 0;     // 5xx answers, answers lost after the server acted, stalls
    int signIns = 0;    // sign-ins the capture lost and got back
    int emitted = 0;    // segments the audio source cut, both tracks
    int stored = 0;     // of those, on the server's disk byte for byte
    int lost = 0;       // emitted and not stored
    int duplicated = 0; // stored more than once
    int misplaced = 0;  // stored under another sequence number than their own
    int calls = 0;      // calls the server holds
    int callsClosed = 0;
    bool finished = false; // the capture ended with its call closed
    QString error;         // the capture's last words when it did not
};

ChaosOutcome runChaos(unsigned seed, int segmentsPerChannel = 32);

} // namespace tessel::test
