import com.nuvik.stabilizer.Stabilizer;

/** CallStabilizer TIMES [load]: calls the native method; "load": loads the library before that. */
public class CallStabilizer {
    public static void main(String[] arguments) {
        try {
            if (arguments.length > 1) System.loadLibrary("videostabilizer");
            Stabilizer stabilizer = new Stabilizer();
            for (int i = 0; i < Integer.parseInt(arguments[0]); ++i) {
                System.out.println("test_stabilizer() = " + stabilizer.test_stabilizer());
            }
            System.out.println("done");
        } catch (LinkageError error) {
            System.out.println("refused: " + error);
        }
    }
}
