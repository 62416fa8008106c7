package com.brantide.kelvane.demo.view;

import com.brantide.kelvane.demo.shop.Item;
import com.brantide.kelvane.demo.shop.Order;

/**
 * The Java a template compiler would make of checkout.tpl (see TEMPLATE): each template line
 * became a few Java lines. The demo attaches the source map that says which.
 */
public final class CheckoutView {
    public static final String[] TEMPLATE = {
        "<h1>Checkout</h1>",
        "<p>Order ${order.id} for ${order.customer}</p>",
        "<ul>{{#each order.items}}<li>${name} x ${quantity}</li>{{/each}}</ul>",
        "<p>Total: ${total}</p>",
    };
    /** How many Java lines each template line became, in order, from the method's first line. */
    public static final int[] JAVA_LINES_PER_TEMPLATE_LINE = {2, 3, 6, 2};

    private CheckoutView() {
    }

    public static String render(Order order, int total) {
        StringBuilder out = new StringBuilder();
        out.append("<h1>Checkout</h1>\n");
        out.append("<p>Order ").append(order.id());
        out.append(" for ").append(order.customer());
        out.append("</p>\n");
        out.append("<ul>");
        for (Item item : order.items()) {
            out.append("<li>").append(item.name());
            out.append(" x ").append(item.quantity()).append("</li>");
        }
        out.append("</ul>\n");
        out.append("<p>Total: ").append(total).append("</p>\n");
        return out.toString();
    }
}
