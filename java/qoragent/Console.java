package qoragent;

import java.io.File;
import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * "java -jar qoragent.jar PID COMMAND [OPTION...]": the console for a machine that has the jar alone. It is the
 * qorctl inside the jar, a static program, so both always say the same.
 */
final class Console {
    private static final String RESOURCE = "/native/linux-x86_64/qorctl";
    private static final int NO_ANSWER = 1;
    private static final int WRONG_USE = 2;

    private Console() {}

    public static void main(String[] arguments) throws InterruptedException {
        if (arguments.length < 2 || !arguments[0].matches("[1-9][0-9]*")) {
            System.err.println(
                "usage: java -jar qoragent.jar PID COMMAND [OPTION...]; COMMAND is threads, stack, locks,"
                + " heap or another one of qorctl");
            System.exit(WRONG_USE);
        }
        Process[] qorctl = new Process[1];
        String failures = NativeLibrary.unpack(RESOURCE, copy -> {
            // The file may go as soon as the program has begun.
            qorctl[0] = start(copy, arguments);
        });
        if (failures != null) {
            System.err.println("qoragent: no place to run qorctl from (" + failures + ")");
            System.exit(NO_ANSWER);
        }
        System.exit(qorctl[0].waitFor());
    }

    private static Process start(Path program, String[] arguments) throws IOException {
        File file = program.toFile();
        if (!file.setExecutable(true, true))
            throw new IOException("it can't be made executable");
        List<String> command = new ArrayList<>(Arrays.asList(program.toString(), arguments[1], arguments[0]));
        command.addAll(Arrays.asList(arguments).subList(2, arguments.length));
        Path jar = NativeLibrary.jar();
        ProcessBuilder builder = new ProcessBuilder(command).inheritIO();
        if (jar != null)
            builder.environment().putIfAbsent("QORAGENT_JAR", jar.toString());
        return builder.start();
    }
}
