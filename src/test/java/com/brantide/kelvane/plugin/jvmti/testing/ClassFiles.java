package com.brantide.kelvane.plugin.jvmti.testing;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import javax.tools.ToolProvider;
import org.objectweb.asm.ClassReader;
import org.objectweb.asm.ClassVisitor;
import org.objectweb.asm.ClassWriter;
import org.objectweb.asm.Opcodes;

/** Class files for the lookup tests: their bytes, and variants made at run time. */
public final class ClassFiles {
    private ClassFiles() {
    }

    public static byte[] bytesOf(Class<?> clazz) throws IOException {
        try (InputStream in = clazz.getResourceAsStream(clazz.getName().substring(clazz.getName().lastIndexOf('.') + 1) + ".class")) {
            return in.readAllBytes();
        }
    }

    /** The class defined again in a loader of its own, carrying the given source debug extension. */
    public static Class<?> withSourceDebugExtension(Class<?> clazz, String extension) throws Exception {
        ClassWriter writer = new ClassWriter(0);
        new ClassReader(bytesOf(clazz)).accept(new ClassVisitor(Opcodes.ASM9, writer) {
            @Override
            public void visitSource(String source, String debug) {
                super.visitSource(source, extension);
            }
        }, 0);
        return define(clazz.getName(), writer.toByteArray());
    }

    /**
     * A class compiled without any debug information and loaded: no source file, no line table, no
     * names of locals. Its methods take arguments of every width, and one loops.
     */
    public static Class<?> withoutDebugInformation() throws Exception {
        Path dir = Files.createTempDirectory("nodebug");
        Path file = dir.resolve("Args.java");
        Files.writeString(file, "package nodebug; public class Args implements java.util.function.LongUnaryOperator {"
                + " public String mixed(String s, long j, double d, int i) { return s + j + d + i; }"
                + " public static int both(int[] a, int b) { return a.length + b; }"
                + " public long applyAsLong(long n) { long s = 0; for (long i = 0; i < n; i++) s += i ^ s; return s; } }");
        if (ToolProvider.getSystemJavaCompiler().run(null, null, null, "-g:none", "-d", dir.toString(), file.toString()) != 0) {
            throw new IllegalStateException("javac failed");
        }
        return define("nodebug.Args", Files.readAllBytes(dir.resolve("nodebug/Args.class")));
    }

    /** Defines the class in a loader of its own, even where the parent has one of that name. */
    private static Class<?> define(String name, byte[] bytes) throws ClassNotFoundException {
        return new ClassLoader(ClassFiles.class.getClassLoader()) {
            Class<?> defineIt() throws ClassNotFoundException {
                defineClass(name, bytes, 0, bytes.length);
                return Class.forName(name, true, this);  // initialized, and so prepared for the VM's lookups
            }
        }.defineIt();
    }
}
