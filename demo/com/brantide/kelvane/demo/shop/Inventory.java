package com.brantide.kelvane.demo.shop;

/** Stock of the one product the demo shop sells out of. */
public final class Inventory {
    private int stock;

    public Inventory(int stock) {
        this.stock = stock;
    }

    public void take(int quantity) {
        if (quantity > stock) {
            throw new IllegalStateException("out of stock: " + quantity + " wanted, " + stock + " left");
        }
        stock -= quantity;
    }

    public int stock() {
        return stock;
    }
}
