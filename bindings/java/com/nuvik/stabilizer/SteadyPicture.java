// SPDX-License-Identifier: Apache-2.0

package com.nuvik.stabilizer;

import java.nio.ByteBuffer;

/**
 * A steady picture in direct buffers of the VM. {@link #close} gives it back to its stabiliser, which
 * uses it again; a picture that is not closed is garbage like any other object.
 */
public final class SteadyPicture implements AutoCloseable {
    final ByteBuffer[] planes;
    final int[] rowStrides;
    /** Number, look-ahead, guarded, scene start, motion found, points, inliers; timestamp. */
    final long[] numbers = new long[8];
    /** Sigma, crop, granted, track ratio; motion; correction; readout. */
    final float[] values = new float[23];
    private final VideoStabilizer owner;
    private boolean closed;

    SteadyPicture(VideoStabilizer owner, int[] rowBytes, int[] rows) {
        this.owner = owner;
        rowStrides = rowBytes.clone();
        planes = new ByteBuffer[rows.length];
        for (int k = 0; k < rows.length; ++k) {
            planes[k] = ByteBuffer.allocateDirect(Math.multiplyExact(rowBytes[k], rows[k]));
        }
    }

    /**
     * The planes in the order of the format: Y, U, V; or Y, UV; or one.
     *
     * @param k from 0 on
     * @return the pixels, rows one after the other without anything between
     */
    public ByteBuffer plane(int k) {
        return planes[k].duplicate();
    }

    /**
     * The number of planes.
     *
     * @return 1 to 4
     */
    public int planeCount() {
        return planes.length;
    }

    /**
     * The distance of two rows of a plane.
     *
     * @param k from 0 on
     * @return bytes
     */
    public int rowStride(int k) {
        return rowStrides[k];
    }

    /**
     * The timestamp of the picture that was pushed.
     *
     * @return as it was given
     */
    public long timestampNs() {
        return numbers[7];
    }

    /**
     * The number of the picture since the stream was opened or flushed.
     *
     * @return from 0 on
     */
    public long number() {
        return numbers[0];
    }

    /**
     * Whether the edge guard has reduced the correction.
     *
     * @return true if so
     */
    public boolean isGuarded() {
        return numbers[2] != 0;
    }

    /**
     * Whether a scene begins with this picture.
     *
     * @return true if so
     */
    public boolean isSceneStart() {
        return numbers[3] != 0;
    }

    /**
     * Whether the motion from the picture before was found; if not, it may have been interpolated.
     *
     * @return true if so
     */
    public boolean isMotionFound() {
        return numbers[4] == 1;
    }

    /**
     * The part of the width and height that is shown.
     *
     * @return 0.5 to 1
     */
    public float crop() {
        return values[1];
    }

    /**
     * The share of the correction without limits that was made.
     *
     * @return 0 to 1
     */
    public float granted() {
        return values[2];
    }

    /**
     * Maps positions in the shaky picture to the steady one, before the crop.
     *
     * @return 3 x 3, row by row, pixels
     */
    public float[] correction() {
        return java.util.Arrays.copyOfRange(values, 13, 22);
    }

    /**
     * The readout of the rolling shutter that was corrected, share of the time between pictures.
     *
     * @return -1 to 1; 0: none
     */
    public float readout() {
        return values[22];
    }

    /** Gives the picture back. Its buffers then show later pictures. A second call does nothing. */
    @Override
    public synchronized void close() {
        if (!closed) {
            closed = true;
            owner.recycle(this);
        }
    }

    synchronized void reopen() {
        closed = false;
    }
}
