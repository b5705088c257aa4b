// What comes in on the link and what goes back: on_message reads each frame from the server
// (the registration's answer, "EXEC" orders) and hands every order it accepts to a pool, or
// answers it at once without a run (an unknown plugin, one the rules refuse, a full queue, an order
// that cannot be read); callbackService reports each finished run as an "EXEC-RESPONSE" and then
// stamps the last-execution file. A failure to reply ends the agent through HandlerQuit(1).
//
// on_message runs on the endpoint's network thread, one frame at a time; it is the only thread
// that queues orders. callbackService runs on the pools' workers, several at once.
#pragma once

#include <memory>
#include <string>

#include "src/service/service.h"

// The endpoint's message callback: registration answers and "EXEC" orders.
void on_message(std::weak_ptr<void> hdl, std::string message);
// The pools' after-exec callback: sends the "EXEC-RESPONSE" of a finished service.
void callbackService(std::shared_ptr<service> svc);
