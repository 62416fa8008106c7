package com.brantide.kelvane.plugin.jvmti.soak;

import org.apache.catalina.Context;
import org.apache.catalina.connector.Connector;
import org.apache.catalina.startup.Tomcat;
import org.apache.tomcat.util.scan.StandardJarScanner;

/**
 * The server JVM of the soak: an embedded Tomcat on 127.0.0.1, on a free port, serving the web
 * application in args[0] as the root context (working files under args[1]) until its standard
 * input closes. Prints "PORT n JAVA version" once it listens and "STOPPED" once Tomcat has stopped; the JVM
 * must then end by itself.
 */
public final class SoakServer {
    private SoakServer() {
    }

    public static void main(String[] args) throws Exception {
        Tomcat tomcat = new Tomcat();
        tomcat.setBaseDir(args[1]);
        Connector connector = new Connector();
        connector.setPort(0);
        connector.setProperty("address", "127.0.0.1");
        tomcat.setConnector(connector);
        Context context = tomcat.addWebapp("", args[0]);
        // Nothing on the server's class path carries tag libraries or initializers for the web
        // application: scanning it would only slow the start.
        ((StandardJarScanner) context.getJarScanner()).setScanClassPath(false);
        tomcat.start();
        System.out.println("PORT " + connector.getLocalPort() + " JAVA " + System.getProperty("java.version"));
        System.in.readAllBytes();
        tomcat.stop();
        tomcat.destroy();
        System.out.println("STOPPED");
    }
}
