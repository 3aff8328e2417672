// SPDX-License-Identifier: Apache-2.0

package com.nuvik.stabilizer;

/** A stream has failed, or cannot do what it was asked for; the message is the library's. */
public class StabilizerException extends RuntimeException {
    private static final long serialVersionUID = 1;

    /** Below zero. */
    private final int code;

    StabilizerException(String message, int code) {
        super(message);
        this.code = code;
    }

    /**
     * The code of the C interface, below zero.
     *
     * @return the code
     */
    public int code() {
        return code;
    }
}
