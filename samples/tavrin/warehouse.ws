<?xml version="1.0" encoding="UTF-8"?>
<Workspace version="1">
  <Window left="0" top="0" width="1280" height="984" state="full"/>
  <Toolbar visible="no"/>
  <Title>Lager &amp; Versand</Title>
</Workspace>
