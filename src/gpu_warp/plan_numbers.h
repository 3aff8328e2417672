// SPDX-License-Identifier: Apache-2.0

// C++ and OpenCL C.
#ifndef VS_PLAN_NUMBERS_H
#define VS_PLAN_NUMBERS_H

// What the first numbers of a plan are, see DevicePlan. Lines are intermediate rows. A place is an
// index into the plan. A position takes two numbers: phases, and what is below them.
enum PlanNumber {
    PLAN_WIDTH,  // pixels
    PLAN_HEIGHT,
    PLAN_CHANNELS,
    PLAN_BLOCKS,             // of a row; the last one may be filled up
    PLAN_STRIPS,             // of a row
    PLAN_LINES,              //
    PLAN_FIRST_LINE,         // its source row; may be negative
    PLAN_SAMPLE_SHIFT,       // see SampleFormat
    PLAN_BIAS,               // what two-byte samples are summed minus
    PLAN_LARGEST,            // sample
    PLAN_ACROSS_ADD,         // see Rounding
    PLAN_ACROSS_SHIFT,       //
    PLAN_DOWN_ADD,           //
    PLAN_DOWN_SHIFT,         //
    PLAN_ACROSS_PAIRS,       // of taps
    PLAN_ACROSS_FIRST,       // place of [table][phase][lane]: pixel of the first tap
    PLAN_ACROSS_EVEN,        // 1: blocks of a strip are equally far apart
    PLAN_ACROSS_STEP,        //    position from block to block
    PLAN_ACROSS_STEP_BELOW,  //
    PLAN_ACROSS_PLACES,      // even: place of [line][strip]: position of the first block;
                             // else: of [line][block]: nearest phase, table
    PLAN_DOWN_PHASES,        // place of [table][phase]: first row, pairs, index of weights, 0
    PLAN_DOWN_ROWS,          // place of [row]: position from block to block, table, 0
    PLAN_DOWN_PLACES,        // place of [row][strip]: position of the first block
    PLAN_COUNT
};

#endif
