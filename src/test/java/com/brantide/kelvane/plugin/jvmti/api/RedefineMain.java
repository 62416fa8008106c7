package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.fixtures.EventTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.lang.instrument.ClassDefinition;
import java.lang.instrument.Instrumentation;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.jar.JarOutputStream;
import java.util.jar.Manifest;

/**
 * A child JVM's program: loads a class with the file-load hook registered, then redefines it
 * through java.lang.instrument. The hook prints what it hears.
 */
public final class RedefineMain {
    private static Instrumentation instrumentation;

    private RedefineMain() {
    }

    public static void premain(String args, Instrumentation given) {
        instrumentation = given;
    }

    /**
     * A jar holding only a manifest that names this class as the instrumentation agent; a file of
     * its own for each caller, since test classes run side by side in one work directory.
     */
    static Path agentJar() throws IOException {
        Path jar = Files.createTempFile(ChildJvm.workDirectory(), "redefine-agent-", ".jar");
        String manifest = "Manifest-Version: 1.0\nPremain-Class: " + RedefineMain.class.getName()
                + "\nCan-Redefine-Classes: true\n";
        byte[] bytes = manifest.getBytes(StandardCharsets.UTF_8);
        new JarOutputStream(Files.newOutputStream(jar), new Manifest(new ByteArrayInputStream(bytes))).close();
        return jar;
    }

    public static void main(String[] args) throws Exception {
        JvmtiApi api = new JvmtiApi();
        api.registerClasses();
        api.registerFileLoadHook((FileLoadHook) clazz -> System.out.println("redefined " + clazz.getName()));
        EventTarget.Fresh.value();
        byte[] bytes = ClassFiles.bytesOf(EventTarget.Fresh.class);
        instrumentation.redefineClasses(new ClassDefinition(EventTarget.Fresh.class, bytes));
        System.out.println("done " + EventTarget.Fresh.value());
    }
}
