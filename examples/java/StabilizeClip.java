// SPDX-License-Identifier: Apache-2.0

import com.nuvik.stabilizer.Stabilizer;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;

/** Stabilises the clip at the place that the native method reads, and looks at the result. */
public class StabilizeClip {
    private static final Path INPUT = Paths.get("/sdcard/keypoints_90f.yuv");
    private static final Path OUTPUT = Paths.get("/sdcard/keypoints_90f_stab.yuv");
    private static final long CLIP_BYTES = 90L * (1280 * 720 + 2 * 640 * 360);

    public static void main(String[] arguments) throws IOException {
        Files.deleteIfExists(OUTPUT); // what is there afterwards comes from this call
        new Stabilizer().test_stabilizer();

        // The method returns 0 whatever happens; the file tells.
        long bytes = Files.exists(OUTPUT) ? Files.size(OUTPUT) : 0;
        System.out.printf("%s: %d of %d bytes%n", OUTPUT, bytes, CLIP_BYTES);
        if (bytes != CLIP_BYTES) {
            System.out.println("not stabilised; the lines above say why");
            System.exit(1);
        }
        System.out.printf("Changed in the last frame: %d%% of the luma%n", changedPercentage());
    }

    /** Share of the last frame's luma bytes that differ between input and output. */
    private static long changedPercentage() throws IOException {
        byte[] before = Files.readAllBytes(INPUT);
        byte[] after = Files.readAllBytes(OUTPUT);
        int luma = 1280 * 720;
        int start = (int) (CLIP_BYTES / 90 * 89);
        long changed = 0;
        for (int i = start; i < start + luma; ++i) {
            if (before[i] != after[i]) {
                ++changed;
            }
        }
        return changed * 100 / luma;
    }
}
