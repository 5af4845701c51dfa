// SPDX-License-Identifier: MIT
//
// Loads configured stacks through the utility module, as its clients do, and lets go of them again.

#ifndef ZARN_HOST_STACK_LOADER_H
#define ZARN_HOST_STACK_LOADER_H

#include <cstdint>
#include <string>
#include <vector>

// What a lookup asks for, and what the file says about it.
struct configured_stack {
    uint32_t family;
    uint32_t type;  // a stack_type
    uint32_t key1;
    int32_t key2;
    std::string name;                  // for people: "out 1 6"
    std::vector<std::string> modules;  // as the settings name them
};

// Loads every stack, prints a line for each, and releases all of them. On each "out" stack an endpoint is
// created and deleted. Returns an exit_code.
int load_stacks(const std::vector<configured_stack> &stacks);

#endif
