package com.brantide.kelvane.demo.shop;

/** One line of an order. */
public record Item(String name, int priceCents, int quantity) {
}
