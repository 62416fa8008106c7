package com.brantide.kelvane.plugin.jvmti.api;

import com.brantide.kelvane.plugin.jvmti.fixtures.EventTarget;
import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import com.brantide.kelvane.plugin.jvmti.testing.ClassFiles;
import java.io.IOException;
import java.io.OutputStream;
import java.lang.instrument.ClassDefinition;
import java.lang.instrument.Instrumentation;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.jar.Attributes;
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

    /** A jar holding only a manifest that names this class as the instrumentation agent. */
    static Path agentJar() throws IOException {
        Path jar = ChildJvm.workDirectory().resolve("redefine-agent.jar");
        Manifest manifest = new Manifest();
        manifest.getMainAttributes().put(Attributes.Name.MANIFEST_VERSION, "1.0");
        manifest.getMainAttributes().putValue("Premain-Class", RedefineMain.class.getName());
        manifest.getMainAttributes().putValue("Can-Redefine-Classes", "true");
        try (OutputStream out = Files.newOutputStream(jar)) {
            new JarOutputStream(out, manifest).close();
        }
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
