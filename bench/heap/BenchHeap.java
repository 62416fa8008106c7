package com.brantide.kelvane.bench.heap;

import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * The heap the benchmark analyses: about 4.8 million reachable objects, and 11,000 instances of
 * {@link Target} held in four different ways, the way an application's caches, queues, tables and
 * lists hold them.
 */
final class BenchHeap {
    static final String TARGET_SIGNATURE = "Lcom/brantide/kelvane/bench/heap/BenchHeap$Target;";

    private static final int MAP_ENTRIES = 1_200_000;  // a Node, an Integer and a Value each
    private static final int MAP_TARGET_EVERY = 400;
    private static final int CHAIN_LINKS = 600_000;    // a Link and its item each
    private static final int CHAIN_TARGET_EVERY = 200;
    private static final int ARRAY_TARGETS = 2_500;
    private static final int LIST_TARGETS = 2_500;

    static final int TARGETS = MAP_ENTRIES / MAP_TARGET_EVERY + CHAIN_LINKS / CHAIN_TARGET_EVERY
            + ARRAY_TARGETS + LIST_TARGETS;

    static final class Target {
        final int id;

        Target(int id) {
            this.id = id;
        }
    }

    static final class Value {
        final long id;
        Target target;

        Value(long id) {
            this.id = id;
        }
    }

    /** A hand-made queue: deep chains are what a GC-root search walks the longest. */
    static final class Link {
        Link next;
        Object item;
    }

    static Map<Integer, Value> byId;
    static Link chain;
    static Target[] pinned;
    static List<Target> recent;

    private BenchHeap() {}

    static void build() {
        int id = 0;
        byId = new HashMap<>();
        for (int k = 0; k < MAP_ENTRIES; k++) {
            Value value = new Value(k);
            if (k % MAP_TARGET_EVERY == 0) value.target = new Target(id++);
            byId.put(k, value);
        }
        Link head = null;
        for (int k = 0; k < CHAIN_LINKS; k++) {
            Link link = new Link();
            link.item = k % CHAIN_TARGET_EVERY == 0 ? new Target(id++) : new long[] {k};
            link.next = head;
            head = link;
        }
        chain = head;
        pinned = new Target[ARRAY_TARGETS];
        for (int k = 0; k < ARRAY_TARGETS; k++) pinned[k] = new Target(id++);
        recent = new ArrayList<>();
        for (int k = 0; k < LIST_TARGETS; k++) recent.add(new Target(id++));
    }
}
