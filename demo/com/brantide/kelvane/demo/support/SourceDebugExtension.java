package com.brantide.kelvane.demo.support;

import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;

/**
 * Gives a class file a SourceDebugExtension attribute, as a template compiler does, and loads the
 * result. Plain class-file surgery: one constant added to the pool, one attribute to the class.
 */
public final class SourceDebugExtension {
    private SourceDebugExtension() {
    }

    /** The class, defined anew in a loader of its own, carrying the extension. */
    public static Class<?> attach(Class<?> clazz, String extension) throws IOException {
        String resource = clazz.getName().substring(clazz.getName().lastIndexOf('.') + 1) + ".class";
        byte[] original;
        try (InputStream in = clazz.getResourceAsStream(resource)) {
            original = in.readAllBytes();
        }
        byte[] patched = withExtension(original, extension);
        return new ClassLoader(clazz.getClassLoader()) {
            Class<?> define() {
                return defineClass(clazz.getName(), patched, 0, patched.length);
            }
        }.define();
    }

    static byte[] withExtension(byte[] classFile, String extension) throws IOException {
        DataInputStream in = new DataInputStream(new java.io.ByteArrayInputStream(classFile));
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream out = new DataOutputStream(bytes);
        out.writeInt(in.readInt());
        out.writeInt(in.readInt());
        int poolCount = in.readUnsignedShort();
        out.writeShort(poolCount + 1);
        copyConstantPool(in, out, poolCount);
        out.writeByte(1); // CONSTANT_Utf8, at index poolCount: the attribute's name
        out.writeUTF("SourceDebugExtension");
        copy(in, out, 6); // access flags, this class, super class
        int interfaces = in.readUnsignedShort();
        out.writeShort(interfaces);
        copy(in, out, 2 * interfaces);
        copyMembers(in, out);
        copyMembers(in, out);
        int attributes = in.readUnsignedShort();
        out.writeShort(attributes + 1);
        for (int i = 0; i < attributes; i++) {
            copyAttribute(in, out);
        }
        byte[] text = extension.getBytes(StandardCharsets.UTF_8);
        out.writeShort(poolCount);
        out.writeInt(text.length);
        out.write(text);
        return bytes.toByteArray();
    }

    private static void copyConstantPool(DataInputStream in, DataOutputStream out, int count) throws IOException {
        for (int index = 1; index < count; index++) {
            int tag = in.readUnsignedByte();
            out.writeByte(tag);
            switch (tag) {
                case 1 -> {
                    int length = in.readUnsignedShort();
                    out.writeShort(length);
                    copy(in, out, length);
                }
                case 3, 4, 9, 10, 11, 12, 17, 18 -> copy(in, out, 4);
                case 5, 6 -> {
                    copy(in, out, 8);
                    index++; // longs and doubles take two entries
                }
                case 7, 8, 16, 19, 20 -> copy(in, out, 2);
                case 15 -> copy(in, out, 3);
                default -> throw new IOException("unknown constant pool tag " + tag);
            }
        }
    }

    private static void copyMembers(DataInputStream in, DataOutputStream out) throws IOException {
        int count = in.readUnsignedShort();
        out.writeShort(count);
        for (int i = 0; i < count; i++) {
            copy(in, out, 6);
            int attributes = in.readUnsignedShort();
            out.writeShort(attributes);
            for (int a = 0; a < attributes; a++) {
                copyAttribute(in, out);
            }
        }
    }

    private static void copyAttribute(DataInputStream in, DataOutputStream out) throws IOException {
        out.writeShort(in.readUnsignedShort());
        int length = in.readInt();
        out.writeInt(length);
        copy(in, out, length);
    }

    private static void copy(DataInputStream in, DataOutputStream out, int length) throws IOException {
        byte[] buffer = new byte[length];
        in.readFully(buffer);
        out.write(buffer);
    }
}
