// The brackets around a request inside which the agent's own fault handler would be in force.
#pragma once

// Both are empty: no handler is installed, and a fault on any thread goes to the JVM's own.
void set_qor_handler();
void reset_qor_handler();
