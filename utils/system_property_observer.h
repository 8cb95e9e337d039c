// SPDX-License-Identifier: Apache-2.0
#pragma once

// Calls `handler(name, true)` when the property `name` becomes exactly "1" and
// `handler(name, false)` when it then becomes exactly "0", strictly in turn, beginning with an
// "on": at once when the property is "1" already. Other values are passed over, and of changes
// faster than the handlers only the latest is seen.
//
// Each distinct `name` pointer (not text) has a thread of its own, which waits in the kernel and
// calls that name's handlers in the order of their subscription. All handlers of all names run one
// at a time under one mutex: a handler must not subscribe. `name` must live as long as the process.
// There is no way to unsubscribe; a thread that cannot be started is not reported.
void ZQSubscribe(const char* name, void (*handler)(const char* name, bool on));
