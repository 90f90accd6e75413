// The gate between the bus thread's work and the end of the process. The bus thread's own callbacks hold it, except
// around what blocks; the end of the process takes it and never gives it back, so that it finds the bus thread either
// outside every module or waiting. Held and given up by scope alone.
#pragma once

/// Holds the gate for its scope. Must not be nested in one thread. Any thread.
struct InsideGate {
    InsideGate();
    ~InsideGate();
    InsideGate(const InsideGate&) = delete;
    InsideGate& operator=(const InsideGate&) = delete;
};

/// Gives the gate up for its scope, if this thread holds it, and takes it again at its end. Inside the scope the thread
/// touches only what it owns itself: the end of the process may be under way. Any thread; waits at its end.
struct OutsideGate {
    OutsideGate();
    ~OutsideGate();
    OutsideGate(const OutsideGate&) = delete;
    OutsideGate& operator=(const OutsideGate&) = delete;

  private:
    bool held_;
};

/// Calls `call` with the gate given up, as in an OutsideGate scope, and gives its result.
template <class Call>
auto outsideGate(const Call& call) {
    const OutsideGate outside;
    return call();
}

/// Takes the gate for good: no other thread's InsideGate or OutsideGate scope ever passes it again. Only for the end of
/// the process; waits for the holder to reach something that blocks.
void closeGateForever();
