package com.brantide.kelvane.demo.shop;

import java.util.List;

/** Prices an order. It has a bug: the discount is taken off twice. */
public final class PriceCalculator {
    public int total(List<Item> items, int discountPercent) {
        int sum = subtotal(items);
        int shipping = sum > 5000 ? 0 : 499;
        int discounted = applyDiscount(sum, discountPercent);
        return discounted + shipping;
    }

    int subtotal(List<Item> items) {
        int sum = 0;
        for (Item item : items) {
            sum += item.priceCents() * item.quantity();
        }
        return sum;
    }

    int applyDiscount(int amount, int percent) {
        int off = amount * percent / 100;
        return amount - off - off;
    }
}
