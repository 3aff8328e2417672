package com.nuvik.stabilizer;

/**
 * The video stabiliser as Java sees it. Loading this class loads the native library {@code
 * videostabilizer} from {@code java.library.path} (on Android from the application's package).
 */
public class Stabilizer {
    static {
        System.loadLibrary("videostabilizer");
    }

    /**
     * Stabilises 90 raw frames of 1280 x 720 planar 4:2:0 video from {@code
     * /sdcard/keypoints_90f.yuv} into {@code /sdcard/keypoints_90f_stab.yuv}, and prints its
     * progress and the elapsed time to the process's standard output. Failures, a missing file for
     * example, are printed there too; none is thrown.
     *
     * <p>Takes seconds: not for a thread that draws. One call at a time in a process.
     *
     * @return 0, always
     */
    public native int test_stabilizer();
}
