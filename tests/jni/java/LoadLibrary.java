/** LoadLibrary: loads the library before anybody has used the class that it binds. */
public class LoadLibrary {
    public static void main(String[] arguments) {
        try {
            System.loadLibrary("videostabilizer");
            System.out.println("loaded");
        } catch (LinkageError error) {
            System.out.println("refused: " + error);
        }
    }
}
