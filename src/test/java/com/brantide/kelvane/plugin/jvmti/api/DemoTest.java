package com.brantide.kelvane.plugin.jvmti.api;

import static org.junit.jupiter.api.Assertions.assertTrue;

import com.brantide.kelvane.plugin.jvmti.testing.ChildJvm;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;

/** The demo's transcript, so that the demo cannot rot: its stops, its table and its tree. */
class DemoTest {
    @Test
    void theTranscriptShowsTheWholeSession() throws Exception {
        Path out = Files.createTempDirectory(ChildJvm.workDirectory(), "demo");
        ChildJvm.Result result = ChildJvm.main("com.brantide.kelvane.demo.Demo", out.toString()).run().assertClean();
        String transcript = result.stdout() + result.stderr();
        assertTrue(result.agentMessages().stream().noneMatch(m -> m.startsWith("ERROR")), transcript);

        assertInOrder(transcript,
                "^  breakpoint PriceCalculator\\.total \\(PriceCalculator\\.java:\\d+\\) +locals: items=\\w+\\(2\\), discountPercent=10$",
                "^  STEP_OVER  PriceCalculator\\.total \\(PriceCalculator\\.java:\\d+\\) +changed: sum=4998$",
                "^  STEP_OVER  PriceCalculator\\.total \\(PriceCalculator\\.java:\\d+\\) +changed: shipping=499$",
                "^  STEP_IN    PriceCalculator\\.applyDiscount \\(PriceCalculator\\.java:\\d+\\) +locals: amount=4998, percent=10$",
                "^  STEP_OUT   PriceCalculator\\.total \\(PriceCalculator\\.java:\\d+\\) *$",
                "^  Inventory\\.stock: 5 -> 2 at Inventory\\.take \\(Inventory\\.java:\\d+\\)$",
                "^  IllegalStateException \"out of stock: 4 wanted, 2 left\"$",
                "^    caught at Shop\\.placeOrder \\(Shop\\.java:\\d+\\)$",
                "^  breakpoint checkout\\.tpl:1  <h1>Checkout</h1>",
                "^  STEP_OVER  checkout\\.tpl:4  <p>Total",
                "^  step over a 10\\^7-iteration call: frame pop \\d+ ms, compiled \\d+ ms, no debugger \\d+ ms$",
                "^  (STEP_OVER  Shop\\.record \\(Shop\\.java:\\d+\\)  on virtual thread \"checkout\"|no JDK 21 or later here)",
                "^    15  \\S+ +\\d+ +[\\d.]+ [KM]?B$",
                "^  \\.\\.\\.   com\\.brantide\\.kelvane\\.demo\\.shop\\.Order +2001 ",
                "^ +`- OrderCache\\.ORDERS \\(STATIC_FIELD\\)  x2001  ",
                "^  suspended order-worker at Unsafe\\.park \\(Native Method\\)",
                "^  threads the agent watches \\(application threads\\): main, order-worker$",
                "^  switched off   true$");
        List<String> csv = Files.readAllLines(out.resolve("kvjvmti-histogram.csv"));
        assertTrue(csv.get(0).equals("CLASS_NAME,COUNT,SIZE")
                && csv.stream().anyMatch(line -> line.startsWith("com.brantide.kelvane.demo.shop.Order,2001,")), csv.toString());
    }

    /** Each pattern matches in a line of the transcript, in this order. */
    private static void assertInOrder(String transcript, String... patterns) {
        int from = 0;
        for (String pattern : patterns) {
            Matcher found = Pattern.compile(pattern, Pattern.MULTILINE).matcher(transcript);
            assertTrue(found.find(from), "not found after the line before: " + pattern + "\n" + transcript);
            from = found.end();
        }
    }
}
