#include "platform/kadata/KaEventsLog.h"

#include <cstdio>
#include <mutex>
#include <utility>

namespace {
std::mutex g_mutex;
KaEventsLogSink g_sink;
}

void OutputEventsLog(int type, const std::string& message)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_sink)
        g_sink(type, message);
    else
        std::fprintf(stderr, "[log %d] %s\n", type, message.c_str());
}

KaEventsLogSink SetEventsLogSink(KaEventsLogSink sink)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return std::exchange(g_sink, std::move(sink));
}
