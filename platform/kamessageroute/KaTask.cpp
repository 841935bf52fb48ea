#include "platform/kamessageroute/KaTask.h"

KA_IMPLEMENT_RUNTIME_CLASS(KaTaskParameter, KaObject, nullptr)
KA_IMPLEMENT_RUNTIME_CLASS(KaTask, KaObject, nullptr)
