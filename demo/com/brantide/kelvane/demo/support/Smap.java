package com.brantide.kelvane.demo.support;

/** Reads the line section of a simple source map: "in:out,increment" entries, one file. */
public final class Smap {
    private final String file;
    private final int[][] entries; // {template line, first Java line, Java lines}

    private Smap(String file, int[][] entries) {
        this.file = file;
        this.entries = entries;
    }

    /** Template line i (from 1) made of javaLines[i - 1] Java lines, the first at firstJavaLine. */
    public static String build(String javaFile, String templateFile, int firstJavaLine, int[] javaLines) {
        StringBuilder text = new StringBuilder("SMAP\n" + javaFile + "\nTPL\n*S TPL\n*F\n+ 0 " + templateFile + "\n"
                + templateFile + "\n*L\n");
        int java = firstJavaLine;
        for (int i = 0; i < javaLines.length; i++) {
            text.append(i + 1).append(':').append(java).append(',').append(javaLines[i]).append('\n');
            java += javaLines[i];
        }
        return text.append("*E\n").toString();
    }

    public static Smap parse(String text) {
        String[] lines = text.split("\n");
        String file = "?";
        java.util.List<int[]> entries = new java.util.ArrayList<>();
        boolean inLines = false;
        for (int i = 0; i < lines.length; i++) {
            String line = lines[i];
            if (line.startsWith("+ 0 ")) {
                file = line.substring(4);
            } else if (line.startsWith("*")) {
                inLines = line.startsWith("*L");
            } else if (inLines) {
                String[] parts = line.split("[:,]");
                entries.add(new int[] {Integer.parseInt(parts[0]), Integer.parseInt(parts[1]), Integer.parseInt(parts[2])});
            }
        }
        return new Smap(file, entries.toArray(new int[0][]));
    }

    public String file() {
        return file;
    }

    /** The template line of a Java line, or -1. */
    public int templateLine(int javaLine) {
        for (int[] entry : entries) {
            if (javaLine >= entry[1] && javaLine < entry[1] + entry[2]) {
                return entry[0];
            }
        }
        return -1;
    }
}
