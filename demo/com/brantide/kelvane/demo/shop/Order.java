package com.brantide.kelvane.demo.shop;

import java.util.List;

/** An order as the shop keeps it. */
public record Order(long id, String customer, List<Item> items) {
}
