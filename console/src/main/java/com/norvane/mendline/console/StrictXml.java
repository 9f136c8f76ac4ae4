package com.norvane.mendline.console;

import java.io.IOException;
import java.io.StringReader;
import javax.xml.XMLConstants;
import javax.xml.parsers.DocumentBuilder;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.parsers.ParserConfigurationException;
import org.w3c.dom.Document;
import org.xml.sax.ErrorHandler;
import org.xml.sax.InputSource;
import org.xml.sax.SAXException;
import org.xml.sax.SAXParseException;

/**
 * The JDK's parser, closed to everything but plain elements: no document type, hence no entities of
 * the document's own and nothing fetched from anywhere.
 */
final class StrictXml {

    private StrictXml() {
    }

    /** @throws SAXException if the text is not one well-formed document without a document type */
    static Document parse(String text) throws SAXException {
        try {
            DocumentBuilderFactory factory = DocumentBuilderFactory.newDefaultInstance();
            factory.setFeature(XMLConstants.FEATURE_SECURE_PROCESSING, true);
            factory.setFeature("http://apache.org/xml/features/disallow-doctype-decl", true);
            factory.setAttribute(XMLConstants.ACCESS_EXTERNAL_DTD, "");
            factory.setAttribute(XMLConstants.ACCESS_EXTERNAL_SCHEMA, "");
            factory.setXIncludeAware(false);
            DocumentBuilder builder = factory.newDocumentBuilder();
            builder.setErrorHandler(new Throwing());
            return builder.parse(new InputSource(new StringReader(text)));
        } catch (ParserConfigurationException | IOException e) {
            throw new IllegalStateException("the JDK's XML parser does not work", e);
        }
    }

    /** The JDK's default handler prints to standard error, past all our care for terminals. */
    private static final class Throwing implements ErrorHandler {
        @Override
        public void warning(SAXParseException e) {
            // Nothing that makes a document unreadable.
        }

        @Override
        public void error(SAXParseException e) throws SAXException {
            throw e;
        }

        @Override
        public void fatalError(SAXParseException e) throws SAXException {
            throw e;
        }
    }
}
