// Messages between the two halves of the process. A message is a TaggedText; each of its
// top-level records is one request, handed to the handler registered for its tag on the
// other half's timer thread, with that half's run lock held.
#pragma once

#include "core/string.h"

using PostedHandler = void (*)(const String& value);

// Handlers for items posted towards the service half (run on run_pbxsrv_sip_timer) and
// towards the control half (run on cthread_func). Registered at start, before threads.
void register_service_handler(int tag, PostedHandler handler);
void register_control_handler(int tag, PostedHandler handler);

// Towards the service half: queued at once, delivered after the next pbxsrv_flush.
void pbxsrv_post(const String& message);
void pbxsrv_flush();
void pbxsrv_soap();
// Towards the control half: queued and scheduled at once.
void out_post(const String& message);
void out_flush();
void exchsrv_soap();

// Hands each top-level record of a message to its handler; for tests and the two soaps.
void dispatch_posted(const String& message, bool to_service);
