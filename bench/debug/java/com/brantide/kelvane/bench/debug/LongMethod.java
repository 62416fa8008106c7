package com.brantide.kelvane.bench.debug;

import java.nio.file.Files;
import java.nio.file.Path;
import javax.tools.ToolProvider;
import org.objectweb.asm.ClassReader;
import org.objectweb.asm.ClassVisitor;
import org.objectweb.asm.ClassWriter;
import org.objectweb.asm.Opcodes;

/**
 * A class with one method of {@link #LINES} lines, one statement each, compiled at run time twice
 * over: as javac leaves it, and carrying an SMAP whose line section has one entry per line.
 */
final class LongMethod {
    static final String CLASS_NAME = "kvbench.LongLines";
    static final int LINES = 2000;
    /** The line of the method's first statement. */
    private static final int FIRST_LINE = 4;

    private LongMethod() {
    }

    /** Writes both variants under the directory: {@code plain/} and {@code smap/}. */
    static void generate(Path dir) throws Exception {
        StringBuilder source = new StringBuilder("package kvbench;\npublic final class LongLines {\n"
                + "    public static int run(int x) {\n");
        for (int i = 1; i < LINES; i++) {
            source.append("        x = x * 31 + ").append(i).append(";\n");
        }
        source.append("        return x;\n    }\n}\n");
        Path file = dir.resolve("LongLines.java");
        Files.writeString(file, source);
        Path plain = dir.resolve("plain");
        int status = ToolProvider.getSystemJavaCompiler().run(null, null, null, "--release", "17", "-g", "-d",
                plain.toString(), file.toString());
        if (status != 0) {
            throw new IllegalStateException("javac failed: " + status);
        }
        String relative = CLASS_NAME.replace('.', '/') + ".class";
        ClassWriter writer = new ClassWriter(0);
        new ClassReader(Files.readAllBytes(plain.resolve(relative))).accept(new ClassVisitor(Opcodes.ASM9, writer) {
            @Override
            public void visitSource(String sourceName, String debug) {
                super.visitSource(sourceName, smap());
            }
        }, 0);
        Path mapped = dir.resolve("smap").resolve(relative);
        Files.createDirectories(mapped.getParent());
        Files.write(mapped, writer.toByteArray());
    }

    /** Template line i is Java line FIRST_LINE + i - 1, each in an entry of its own. */
    static String smap() {
        StringBuilder smap = new StringBuilder("SMAP\nLongLines.java\nJSP\n*S JSP\n*F\n+ 0 long.jsp\nlong.jsp\n*L\n");
        for (int i = 1; i <= LINES; i++) {
            smap.append(i).append(':').append(FIRST_LINE + i - 1).append('\n');
        }
        return smap.append("*E\n").toString();
    }
}
