package com.brantide.kelvane.demo.shop;

import java.util.List;
import java.util.concurrent.atomic.AtomicLong;

/** The demo's application: takes orders, prices them, and keeps (too many of) them. */
public final class Shop {
    private final AtomicLong ids = new AtomicLong(1000);
    private final PriceCalculator prices = new PriceCalculator();
    private final Inventory inventory = new Inventory(5);

    public int quote(List<Item> items, int discountPercent) {
        return prices.total(items, discountPercent);
    }

    public String placeOrder(String customer, List<Item> items) {
        try {
            for (Item item : items) {
                inventory.take(item.quantity());
            }
            Order order = new Order(ids.incrementAndGet(), customer, items);
            OrderCache.remember(order);
            return "order " + order.id() + " placed";
        } catch (IllegalStateException e) {
            return "order refused: " + e.getMessage();
        }
    }

    public Order record(String customer, List<Item> items) {
        Order order = new Order(ids.incrementAndGet(), customer, items);
        OrderCache.remember(order);
        return order;
    }

    /** The demand of so many days ahead, worked out day by day: a long computation. */
    public long forecast(int days) {
        long demand = 0;
        for (int day = 0; day < days; day++) {
            demand += day ^ (demand >>> 3);
        }
        return demand;
    }

    public Inventory inventory() {
        return inventory;
    }
}
