#pragma once

#include <functional>
#include <string>

// The host's event log. Type 3 is used for allocation failures and page
// validation. Messages go to the installed sink (stderr by default).
void OutputEventsLog(int type, const std::string& message);

// Replaces the sink; returns the previous one. An empty function restores stderr.
using KaEventsLogSink = std::function<void(int, const std::string&)>;
KaEventsLogSink SetEventsLogSink(KaEventsLogSink sink);
