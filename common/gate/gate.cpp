#include "common/gate/gate.h"

#include <pthread.h>

static pthread_mutex_t iGate = PTHREAD_MUTEX_INITIALIZER;
static thread_local bool iHoldsGate = false;

static void takeGate() {
    pthread_mutex_lock(&iGate);
    iHoldsGate = true;
}

static void giveGateUp() {
    iHoldsGate = false;
    pthread_mutex_unlock(&iGate);
}

InsideGate::InsideGate() { takeGate(); }

InsideGate::~InsideGate() { giveGateUp(); }

OutsideGate::OutsideGate() : held_(iHoldsGate) {
    if (held_) giveGateUp();
}

OutsideGate::~OutsideGate() {
    if (held_) takeGate();
}

void closeGateForever() { pthread_mutex_lock(&iGate); }
