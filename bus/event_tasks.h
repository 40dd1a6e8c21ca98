// Tasks that the event listener posts onto the pool. Each gets a copy of
// the event's message attribute (header and payload).
#pragma once

// Logs the LAN description at level 6. It doesn't release its message:
// one small loss per event, accepted for a debugging event.
void print_lan_info(void *message) noexcept;

// Logs the live list, or its online or offline part, at level 6, and frees
// its message. With no `online` key the whole list is logged.
void print_client(void *message) noexcept;
