package com.brantide.kelvane.plugin.jvmti.testing;

import java.io.IOException;
import java.io.InputStream;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import javax.tools.JavaCompiler;
import javax.tools.ToolProvider;
import org.objectweb.asm.ClassReader;
import org.objectweb.asm.ClassVisitor;
import org.objectweb.asm.ClassWriter;
import org.objectweb.asm.Label;
import org.objectweb.asm.MethodVisitor;
import org.objectweb.asm.Opcodes;

/** Class files for the lookup tests: their own line tables, and variants made at run time. */
public final class ClassFiles {
    private ClassFiles() {
    }

    public static byte[] bytesOf(Class<?> clazz) throws IOException {
        try (InputStream in = clazz.getResourceAsStream(clazz.getName().substring(clazz.getName().lastIndexOf('.') + 1) + ".class")) {
            return in.readAllBytes();
        }
    }

    /** The method's line table as (bytecode offset, line) pairs, in offset order. */
    public static List<long[]> lineTable(Class<?> clazz, String methodKey) throws IOException {
        List<Label> starts = new ArrayList<>();
        List<Integer> lines = new ArrayList<>();
        // Labels get their offsets only when a writer lays the code out again, unchanged here.
        new ClassReader(bytesOf(clazz)).accept(new ClassVisitor(Opcodes.ASM9, new ClassWriter(0)) {
            @Override
            public MethodVisitor visitMethod(int access, String name, String descriptor, String signature,
                    String[] exceptions) {
                if (!methodKey.equals(name + descriptor)) {
                    return null;
                }
                return new MethodVisitor(Opcodes.ASM9,
                        super.visitMethod(access, name, descriptor, signature, exceptions)) {
                    @Override
                    public void visitLineNumber(int line, Label start) {
                        super.visitLineNumber(line, start);
                        starts.add(start);
                        lines.add(line);
                    }
                };
            }
        }, 0);
        List<long[]> table = new ArrayList<>();
        for (int i = 0; i < starts.size(); i++) {
            table.add(new long[] {starts.get(i).getOffset(), lines.get(i)});
        }
        table.sort((a, b) -> Long.compare(a[0], b[0]) != 0 ? Long.compare(a[0], b[0]) : Long.compare(a[1], b[1]));
        return table;
    }

    /** The class defined again in a loader of its own, carrying the given source debug extension. */
    public static Class<?> withSourceDebugExtension(Class<?> clazz, String extension) throws IOException {
        ClassWriter writer = new ClassWriter(0);
        new ClassReader(bytesOf(clazz)).accept(new ClassVisitor(Opcodes.ASM9, writer) {
            @Override
            public void visitSource(String source, String debug) {
                super.visitSource(source, extension);
            }
        }, 0);
        return define(clazz.getName(), writer.toByteArray());
    }

    /** Compiles a one-class source without any debug information and loads it. */
    public static Class<?> compiledWithoutDebugInformation(String className, String source) throws Exception {
        Path dir = Files.createTempDirectory("nodebug");
        Path file = dir.resolve(className.substring(className.lastIndexOf('.') + 1) + ".java");
        Files.writeString(file, source);
        JavaCompiler javac = ToolProvider.getSystemJavaCompiler();
        int status = javac.run(null, null, null, "-g:none", "-d", dir.toString(), file.toString());
        if (status != 0) {
            throw new IllegalStateException("javac failed: " + status);
        }
        URLClassLoader loader = new URLClassLoader(new URL[] {dir.toUri().toURL()}, ClassFiles.class.getClassLoader());
        return Class.forName(className, true, loader);
    }

    private static Class<?> define(String name, byte[] bytes) {
        return new ClassLoader(ClassFiles.class.getClassLoader()) {
            Class<?> defineIt() {
                Class<?> defined = defineClass(name, bytes, 0, bytes.length);
                resolveClass(defined);
                return defined;
            }
        }.defineIt();
    }
}
