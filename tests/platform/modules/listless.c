// SPDX-License-Identifier: MIT
//
// A shared object that is no module.

int something_else = 1;
