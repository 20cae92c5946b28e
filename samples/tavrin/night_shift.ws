<Workspace version="1">
  <Window left="40" top="40" width="1024" height="768" state="normal"/>
  <Colors foreground="#00ff00" background="#000000"/>
</Workspace>
