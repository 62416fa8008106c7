<%@ page contentType="text/html; charset=UTF-8" pageEncoding="UTF-8" %>
<%@ page import="java.util.ArrayList, java.util.List" %>
<%!
    private int visits;

    private static String shout(String text) {
        StringBuilder loud = new StringBuilder(text.length());
        for (char c : text.toCharArray()) {
            loud.append(Character.toUpperCase(c));
        }
        return loud.toString();
    }
%>
<!DOCTYPE html>
<html>
<head>
  <title>Order summary</title>
</head>
<body>
<%
    String customer = request.getParameter("customer");
    if (customer == null || customer.isEmpty()) {
        customer = "guest";
    }
    List<String> items = new ArrayList<>();
    for (int i = 1; i <= 3; i++) {
        items.add("item-" + i);
    }
    int total = 0;
%>
<h1>Hello, <%= shout(customer) %></h1>
<p>Visit number <%= ++visits %></p>
<table>
  <tr><th>#</th><th>Item</th></tr>
<% for (int row = 0; row < items.size(); row++) {
       total += row + 1; %>
  <tr>
    <td><%= row + 1 %></td>
    <td><%= items.get(row) %></td>
  </tr>
<% } %>
</table>
<% if (total > 5) { %>
<p>Large order: <%= total %> units.</p>
<% } else { %>
<p>Small order.</p>
<% } %>
</body>
</html>
