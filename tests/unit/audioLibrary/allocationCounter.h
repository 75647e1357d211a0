#pragma once

/** Allocations of this process by operator new since it started. Any thread. */
unsigned int allocationsSoFar();
