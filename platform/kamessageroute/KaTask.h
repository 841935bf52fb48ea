#pragma once

#include <string>

#include "platform/kamessageroute/KaObject.h"

// The parameter record of a host task.
class KaTaskParameter : public KaObject {
    KA_DECLARE_RUNTIME_CLASS(KaTaskParameter)
public:
    // The host's "set parameter" check: true when the record is complete enough
    // to run the task. The base has nothing to set and refuses.
    virtual bool SetParameter() { return false; }
};

// A unit of work the host can run by name; created through its runtime class.
class KaTask : public KaObject {
    KA_DECLARE_RUNTIME_CLASS(KaTask)
public:
    // Runs the task (typically: asks for its parameters). The base does nothing.
    virtual bool Execute() { return false; }
};
