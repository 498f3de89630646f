// Which message does what.
#pragma once

#include "lac_task.h"

// The queue's dispatcher: runs the machines on a message, then brings the member lists together with what they want.
void lacDispatch(LacQueueMsg &message);
