/** The native method that does nothing but take a text and give one. */
final class BareEcho {

    private BareEcho() {
    }

    static native String echo(String request);
}
