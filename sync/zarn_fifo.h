// SPDX-License-Identifier: MIT
//
// The FIFO's operations. The record and its rules are in <zarn/zarn_fifo.h>, what each operation
// promises stands with the table of <zarn/zarn_util.h>.

#ifndef ZARN_SYNC_ZARN_FIFO_H
#define ZARN_SYNC_ZARN_FIFO_H

#include <zarn/zarn_fifo.h>

extern "C" {

int32_t create_zarn_fifo(zarn_fifo_t *fifo, const char *name, uint32_t limit);
void delete_zarn_fifo(zarn_fifo_t *fifo);
int32_t enqueue_zarn_fifo_data(zarn_fifo_t *fifo, zarn_data_t *data);
int32_t dequeue_zarn_fifo_data(zarn_fifo_t *fifo, zarn_data_t **out, int64_t timeout, uint8_t peek);
int32_t clear_zarn_fifo(zarn_fifo_t *fifo);
}

#endif
