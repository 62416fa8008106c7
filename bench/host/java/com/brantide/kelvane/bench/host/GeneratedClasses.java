package com.brantide.kelvane.bench.host;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.IntUnaryOperator;
import java.util.stream.Stream;
import javax.tools.JavaCompiler;
import javax.tools.ToolProvider;

/**
 * Classes for the class-loading workload: written as source, compiled by the JDK's own javac in
 * the running VM (which loads the compiler's classes: the class loading a tool or a server that
 * compiles pages does), and defined again and again in new class loaders.
 */
final class GeneratedClasses {
    static final int COUNT = 200;
    private static final String PACKAGE = "kvhostgen";

    private GeneratedClasses() {
    }

    /** Compiles the classes from source in a temporary directory; their bytes by binary name. */
    static Map<String, byte[]> compile() throws IOException {
        Path dir = Files.createTempDirectory("kv-bench-host");
        try {
            List<String> arguments = new ArrayList<>(List.of("-proc:none", "-d", dir.resolve("out").toString()));
            for (int k = 0; k < COUNT; k++) {
                arguments.add(writeSource(dir, k).toString());
            }
            JavaCompiler javac = ToolProvider.getSystemJavaCompiler();
            if (javac.run(null, null, null, arguments.toArray(new String[0])) != 0) {
                throw new IllegalStateException("javac did not compile the generated classes");
            }
            return readClasses(dir.resolve("out").resolve(PACKAGE));
        } finally {
            deleteTree(dir);
        }
    }

    /** Defines every class in one new loader, initializes it, and calls one instance of it. */
    static long loadAll(Map<String, byte[]> classes, int seed) {
        Loader loader = new Loader(classes);
        long sum = 0;
        for (String name : classes.keySet()) {
            sum += newInstance(loader, name).applyAsInt(seed);
        }
        return sum;
    }

    private static IntUnaryOperator newInstance(Loader loader, String name) {
        try {
            return (IntUnaryOperator) Class.forName(name, true, loader).getDeclaredConstructor().newInstance();
        } catch (ReflectiveOperationException e) {
            throw new IllegalStateException(name, e);
        }
    }

    /** A class with a static initializer, a field, and a method that is called once. */
    private static Path writeSource(Path dir, int k) throws IOException {
        String name = "G" + k;
        String source = "package " + PACKAGE + ";\n"
                + "public final class " + name + " implements java.util.function.IntUnaryOperator {\n"
                + "    static final int[] TABLE = new int[" + (k % 7 + 1) + "];\n"
                + "    private final int offset = TABLE.length + " + k + ";\n"
                + "    public int applyAsInt(int x) {\n"
                + "        return x % 1000 + offset;\n"
                + "    }\n"
                + "}\n";
        Path file = dir.resolve(name + ".java");
        Files.writeString(file, source);
        return file;
    }

    private static Map<String, byte[]> readClasses(Path packageDir) throws IOException {
        Map<String, byte[]> classes = new HashMap<>();
        try (Stream<Path> files = Files.list(packageDir)) {
            for (Path file : (Iterable<Path>) files::iterator) {
                String simpleName = file.getFileName().toString().replace(".class", "");
                classes.put(PACKAGE + "." + simpleName, Files.readAllBytes(file));
            }
        }
        if (classes.size() != COUNT) {
            throw new IllegalStateException("javac wrote " + classes.size() + " classes, not " + COUNT);
        }
        return classes;
    }

    private static void deleteTree(Path dir) throws IOException {
        try (Stream<Path> paths = Files.walk(dir)) {
            for (Path path : (Iterable<Path>) paths.sorted(Comparator.reverseOrder())::iterator) {
                Files.delete(path);
            }
        }
    }

    /** Defines the generated classes from their bytes; everything else comes from its parent. */
    private static final class Loader extends ClassLoader {
        private final Map<String, byte[]> classes;

        Loader(Map<String, byte[]> classes) {
            super(GeneratedClasses.class.getClassLoader());
            this.classes = classes;
        }

        @Override
        protected Class<?> findClass(String name) throws ClassNotFoundException {
            byte[] bytes = classes.get(name);
            if (bytes == null) {
                throw new ClassNotFoundException(name);
            }
            return defineClass(name, bytes, 0, bytes.length);
        }
    }
}
