import com.nuvik.stabilizer.Stabilizer;

/** CallStabilizer TIMES: calls the native method, then shows that the VM is still in order. */
public class CallStabilizer {
    public static void main(String[] arguments) {
        Stabilizer stabilizer = new Stabilizer();
        for (int i = 0; i < Integer.parseInt(arguments[0]); ++i) {
            System.out.println("test_stabilizer() = " + stabilizer.test_stabilizer());
        }
        System.out.println("processor traps " + (trapsArrive() ? "arrive" : "are lost"));
    }

    /** The VM makes exceptions of processor traps, unless native code has taken its signals. */
    private static boolean trapsArrive() {
        int caught = 0;
        try {
            System.out.println(1 / Integer.parseInt("0"));
        } catch (ArithmeticException expected) {
            ++caught;
        }
        try {
            System.out.println(System.getProperty("no such property").length());
        } catch (NullPointerException expected) {
            ++caught;
        }
        return caught == 2;
    }
}
