// SPDX-License-Identifier: Apache-2.0

package com.nuvik.stabilizer;

/**
 * The Java interface of the video stabiliser. Loading this class loads the native library {@code
 * videostabilizer} from {@code java.library.path} (on Android from the application's package).
 */
public class Stabilizer {
    static {
        System.loadLibrary("videostabilizer");
    }

    /**
     * Stabilises 90 raw frames of 1280 x 720 planar 4:2:0 video from {@code
     * /sdcard/keypoints_90f.yuv} into {@code /sdcard/keypoints_90f_stab.yuv}, and prints its
     * progress and the elapsed time to the process's standard output. Failures, for example a
     * missing file, are printed there too; no exception is thrown.
     *
     * <p>Takes seconds: do not call it on the UI thread. One call at a time per process.
     *
     * @return 0, always
     */
    public native int test_stabilizer();
}
